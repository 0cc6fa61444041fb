// The typed front-end end to end: calls of declared providers, dumped and decoded with the
// decode file that the build generated from the same declaration; spans.
#include <gtest/gtest.h>

#include "decode_test_support.h"
#include "typed_test_providers.h"

extern "C" void typed_c_calls(void);

#define UNDECODABLE(POINT, SPAN) \
  POINT(0, a, "{z:x} {} {{ok}} {y} {}", (uint32_t, z)) POINT(1, b, "}{z", (uint32_t, z))
QUARRY_PROVIDER(undecodable, "undecodable", "undecodable.dec", UNDECODABLE);

using namespace decode_test;

namespace {

// The same records from C++ and from C (typed_c_host.c), a span, nothing from before the open.
TEST(DecodeTyped, GeneratedDecodeFileDecodesTheCalls) {
  quarry_set_process_name("typed_host");
  typed_spans::note("before the open: a disabled call");
  quarry::provider<typed_points> typed(4096);
  quarry::provider<typed_spans> spans(4096);
  ASSERT_EQ(0, typed.result());
  ASSERT_EQ(0, spans.result());
  EXPECT_EQ(6u, typed_points::trace_point_count);  // one above the highest index
  EXPECT_EQ(quarry::decode_file_text<typed_points>(),
            quarry_test::read_file(QUARRY_TEST_DECODE_DIR "typed.dec"));
  EXPECT_NE(
      std::string::npos,
      quarry::decode_file_text<typed_spans>().find(
          "\n0 work_begin d item:u @begin:work = working on {item}\n1 work_end - @end:work\n"));

  typed_points::tick();
  typed_points::request(0xFF000000u, std::string_view("GET /x\0junk", 11));
  typed_points::reply(-2, 0xFFFFFFFFFFFFFFFFull);
  typed_points::mixed(int8_t{-1}, nullptr, INT64_MIN, std::string("abcd"), typed_color::blue);
  typed_points::six(1u, 2u, 3u, 4u, 0xFFFFFFFFu, -6);
  typed_c_calls();
  {
    auto work = typed_spans::work(9u);
    typed_spans::note("inside");
  }
  typed_spans::note("after");
  ASSERT_EQ(0, quarry_dump(typed.handle()));
  ASSERT_EQ(0, quarry_dump(spans.handle()));

  // spans.dec is not generated: those records show raw, by index.
  const std::string dir = quarry_test::base_dir() + "typed_host/";
  const CliResult r = run({"-d", QUARRY_TEST_DECODE_DIR, dir + "typed/", dir + "spans/"});
  EXPECT_EQ(0, r.status) << r.err;
  const std::vector<std::string> calls = {
      "typed:tick\n",
      "typed:request: request 4278190080 for GET /x\n",  // cut at the NUL
      "typed:reply: reply -2 after 18446744073709551615 ns\n",
      ("typed:mixed: { small = -1, text = \"(null)\", wide = -9223372036854775808, "
       "name = \"abcd\", color = 200 }\n"),
      "typed:six: 1 2 3 4 4294967295 -6\n",
  };
  std::vector<std::string> parts = calls;  // from C++, then from C
  parts.insert(parts.end(), calls.begin(), calls.end());
  parts.insert(parts.end(), {"spans:#0", "spans:#2", "spans:#1", "spans:#2"});
  const std::vector<std::string> shown = lines_of(r.out);
  ASSERT_EQ(parts.size(), shown.size()) << r.out;
  for (size_t i = 0; i < parts.size(); ++i)
    EXPECT_NE(std::string::npos, (shown[i] + "\n").find(parts[i])) << shown[i];
}

// The generator refuses messages the decoder would reject, so a build cannot ship them.
TEST(DecodeTyped, MessagesTheDecoderWouldRejectAreFound) {
  EXPECT_EQ("", quarry::decode_file_problems<typed_points>());
  EXPECT_EQ(
      "a: the message placeholder {y} names no argument\n"
      "a: the message placeholder {} names no argument\n"
      "b: unmatched } in the message\nb: unmatched { in the message\n",
      quarry::decode_file_problems<undecodable>());
}

}  // namespace
