// The one exception type of the decoding library. Thread contract: none needed (a value type).
// Thrown for input that cannot be decoded at all; damage inside the records is counted, not
// thrown (record_decoder.h).
#pragma once

#include <stdexcept>
#include <string>

namespace quarry_decode {

// The message says what is wrong; callers that know the file name put it in front.
class DecodeError : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

}  // namespace quarry_decode
