// Wrong calls of typed trace points. tests/compile_fail.cmake compiles this file once per case
// (-DCASE_<name>) and expects each to fail with its diagnostic; CASE_OK must compile, so that a
// broken harness or header cannot pass as "failed as expected".
#include "typed_test_providers.h"

struct not_a_number {
  int x;
};

#if defined(CASE_BAD_DECLARATION)
#define BAD_POINTS(POINT, SPAN) POINT(0, ratio, "", (double, value))
QUARRY_PROVIDER(bad_points, "bad", "bad.dec", BAD_POINTS);
#elif defined(CASE_DUPLICATE_INDEX)
#define TWICE_POINTS(POINT, SPAN) POINT(0, a, "") SPAN(0, b, "")
QUARRY_PROVIDER(twice_points, "twice", "twice.dec", TWICE_POINTS);
#endif

void calls(uint64_t wide, float ratio, std::string_view text, not_a_number n) {
  (void)wide, (void)ratio, (void)text, (void)n;
#if defined(CASE_OK)
  typed_points::request(7, text);
  typed_points::reply(int16_t{-1}, wide);
  typed_points::mixed('c', "literal", 5, std::string(text), typed_color::red);
  auto span = typed_spans::work(1u);
#elif defined(CASE_TRUNCATED)
  typed_points::request(wide, text);
#elif defined(CASE_FLOAT)
  typed_points::request(ratio, text);
#elif defined(CASE_NUMBER_FOR_STRING)
  typed_points::request(1u, 2u);
#elif defined(CASE_STRING_FOR_NUMBER)
  typed_points::reply("200", wide);
#elif defined(CASE_STRUCT)
  typed_points::reply(n, wide);
#elif defined(CASE_TOO_FEW)
  typed_points::request(1u);
#elif defined(CASE_TOO_MANY)
  typed_points::tick(1u);
#elif defined(CASE_BAD_DECLARATION)
  bad_points::ratio(1.0);
#elif defined(CASE_DUPLICATE_INDEX)
  twice_points::a();
#endif
}
