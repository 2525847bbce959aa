#include <gtest/gtest.h>
#include <pxkit/objects/PXArray.h>
#include <pxkit/objects/PXFormat.h>

#include <cmath>
#include <cstdarg>
#include <cstdint>
#include <cstdio>
#include <limits>
#include <string>

namespace {

// The C library's text for the same format and arguments; the attribute lets
// the compiler check every row of the table below.
__attribute__((format(printf, 1, 2))) std::string cFormat(const char* format, ...) {
  va_list args;
  va_start(args, format);
  char buffer[1024];
  std::vsnprintf(buffer, sizeof buffer, format, args);
  va_end(args);
  return buffer;
}

#define EXPECT_LIKE_C(...) EXPECT_EQ(PXFormat(__VA_ARGS__).str(), cFormat(__VA_ARGS__)) << #__VA_ARGS__

}  // namespace

TEST(PXFormat, NumericDirectivesMatchTheCLibrary) {
  const int64_t big = std::numeric_limits<int64_t>::max();
  const uint64_t huge = std::numeric_limits<uint64_t>::max();
  const size_t count = 12345;
  const void* pointer = reinterpret_cast<const void*>(uintptr_t{0xdeadbeef});
  EXPECT_LIKE_C("%5d|%-5d|%05d|%+d|% d", 42, 42, -42, 42, 42);
  EXPECT_LIKE_C("%.3d|%8.3d|%-8.3d|", 7, -7, 7);
  EXPECT_LIKE_C("%*d|%-*d|%*d", 6, 1, 6, 2, -6, 3);
  EXPECT_LIKE_C("%lld|%llu", static_cast<long long>(big), static_cast<unsigned long long>(huge));
  EXPECT_LIKE_C("%zu|%zd", count, static_cast<ssize_t>(-5));
  // An int narrowed by the length modifier: clang's format check flags it, on purpose here.
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wformat"
  EXPECT_LIKE_C("%hhd|%hd|%hhu|%hu", 300, 70000, 300, 70000);
#pragma GCC diagnostic pop
  EXPECT_LIKE_C("%x|%X|%#x|%#X|%o|%#o", 255u, 255u, 255u, 255u, 8u, 8u);
  EXPECT_LIKE_C("%02x|%2.2x|%4.4x|%08lx|%llx", 10u, 10u, 0xbeefu, 0xabcUL,
                static_cast<unsigned long long>(huge));
  EXPECT_LIKE_C("%f|%.0f|%.01f|%.2f|%10.3f|%-10.1f|%+f", 3.14159, 2.5, 0.05, -1.005, 2.0, 2.0, 1.0);
  EXPECT_LIKE_C("%g|%g|%g|%g|%G|%F", 100000.0, 1000000.0, 0.0001, 0.00001, 1e-10, 1.5);
  EXPECT_LIKE_C("%e|%.2e|%E|%12.4e", 12345.678, 0.000123, 1e100, -5.5);
  EXPECT_LIKE_C("%a|%A", 1.0, 0.5);
  EXPECT_LIKE_C("%f|%f|%f", std::numeric_limits<double>::infinity(), -std::numeric_limits<double>::infinity(),
                std::numeric_limits<double>::quiet_NaN());
  EXPECT_LIKE_C("%.0f", 1e300);  // longer than any stack buffer
  EXPECT_LIKE_C("%c%c%c|%3c|%-3c|", 'a', 'b', 'c', 'x', 'y');
  EXPECT_LIKE_C("%s|%10s|%-10s|%.2s|%*.*s|", "text", "right", "left", "cut", 6, 3, "abcdef");
  EXPECT_LIKE_C("%p|%20p|%-20p|", pointer, pointer, pointer);
  EXPECT_LIKE_C("100%% sure, %d%%", 5);
}

TEST(PXFormat, ObjectDirectiveAndTypeChecks) {
  struct Row {
    PXString got;
    const char* expected;
  };
  const std::string standard = "std";
  const Row rows[] = {
      {PXFormat("%@", PXValue()), "(null)"},
      {PXFormat("%@ and %@", PXString("this"), standard), "this and std"},
      {PXFormat("%@", static_cast<const char*>(nullptr)), "(null)"},
      {PXFormat("[%8@][%-8@][%.3@]", PXString("abc"), PXString("abc"), PXString("abcdef")),
       "[     abc][abc     ][abc]"},
      {PXFormat("{%@}-{%@}-{%@}", PXString("id"), PXString(), PXString("")), "{id}-{(null)}-{}"},
      {PXFormat("Expected %@, not '%*.*s'", PXString("a value"), 3, 3, "abc]"),
       "Expected a value, not 'abc'"},
      {PXFormat("\\u%4.4x\\u%4.4x", 0xd83d, 0xde00), "\\ud83d\\ude00"},
      // Arguments of another type than the directive asks for are shown as well as they can be.
      {PXFormat("%d", int64_t{1} << 40), "1099511627776"},
      {PXFormat("%u", -1), "4294967295"},
      {PXFormat("%lu", -1L), "18446744073709551615"},
      {PXFormat("%x", int64_t{-1} << 40), "ffffff0000000000"},
      {PXFormat("%f", 3), "3.000000"},
      {PXFormat("%d", 2.9), "2"},
      {PXFormat("%d", 1e300), "9223372036854775807"},
      {PXFormat("%s", PXValue(PXArray::array())), "(\n)"},
      {PXFormat("%lc", 0xe9), "\xc3\xa9"},
      // Every other pairing of argument and directive.
      {PXFormat("%*d|%*d|%*d|%*d|%*d|", 3u, 7, 3.0, 7, PXValue(3), 7, "x", 7, NAN, 7), "  7|  7|  7|7|7|"},
      {PXFormat("%qd|%jd|%td|%Lf", 1LL, 2LL, ptrdiff_t{3}, 1.5), "1|2|3|1.500000"},
      {PXFormat("%d|%i|%d", 5u, static_cast<const void*>(nullptr), static_cast<const char*>(nullptr)),
       "5|0|0"},
      {PXFormat("%u|%x|%u|%x|%hhu", PXValue(5u), PXValue(-1), 2.5, static_cast<const void*>(nullptr), 300u),
       "5|ffffffff|2|0|44"},
      {PXFormat("%.1f|%.1f", 2u, "x"), "2.0|0.0"},
      {PXFormat("%p|%p|%p|%p", PXValue(), 255, 255u, 1.5), "(nil)|0xff|0xff|(nil)"},
      {PXFormat("%c%c|%lc|%lc|%lc", PXValue(65), 66u, 0x20ac, 0x1f600, 0x110041), "AB|€|😀|A"},
      {PXFormat("%@|%@|%@", 7u, 0.5, static_cast<const void*>(nullptr)), "7|0.5|(nil)"},
      {PXFormat("%-------5d|", 1), "1    |"},  // more flags than are kept
      {PXFormat("%0$d|%$d", 1), "%0$d|%$d"},   // no position
      // Missing arguments, stray and unknown directives.
      {PXFormat("%@ %d %s %f"), "(null) 0 (null) 0.000000"},
      {PXFormat("ends with %"), "ends with %"},
      {PXFormat("%y %k", 1), "%y %k"},
      {PXFormat("%n%d", 7), "0"},
      // Positions.
      {PXFormat("%2$@ before %1$@", PXString("one"), PXString("two")), "two before one"},
  };
  for (const Row& row : rows) EXPECT_EQ(row.got.view(), row.expected);
  for (const PXString& capped : {PXFormat("%99999999d", 1), PXFormat("%*d", int64_t{1} << 40, 1),
                                 PXFormat("%*d", -(int64_t{1} << 40), 1), PXFormat("%.*d", ~0ull, 1)}) {
    EXPECT_EQ(capped.size(), size_t{1 << 20});  // widths and precisions are capped
  }
  EXPECT_EQ(PXFormat("%*d"), "0");
  EXPECT_EQ(PXFormat(nullptr), "");
}
