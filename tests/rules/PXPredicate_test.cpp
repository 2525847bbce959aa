#include <gtest/gtest.h>
#include <pxkit/objects/PXArray.h>
#include <pxkit/objects/PXDictionary.h>
#include <pxkit/objects/PXException.h>
#include <pxkit/rules/PXPredicate.h>

#include <atomic>
#include <string>
#include <thread>
#include <vector>

namespace {

// An object that is not a dictionary: unknown keys raise. It records what it
// is asked, to show how key paths reach it.
class PredicateTestHost : public PXObject {
  PX_DECLARE_CLASS(PredicateTestHost)
 public:
  PXString name = "abc";
  mutable std::vector<std::string> asked;
  PXValue valueForKeyPath(std::string_view keyPath) const override {
    asked.push_back("path:" + std::string(keyPath));
    if (keyPath == "version.os") return "10.10";
    return PXObject::valueForKeyPath(keyPath);
  }
  PXValue valueForKey(std::string_view key) const override {
    asked.push_back("key:" + std::string(key));
    return PXObject::valueForKey(key);
  }
};

}  // namespace

PX_DEFINE_CLASS(PredicateTestHost, PXObject,
                [](PXClassBuilder<PredicateTestHost>& c) { c.property("name", &PredicateTestHost::name); })

namespace {

PXValue array(std::initializer_list<PXValue> values) {
  return PXValue(PXArray::arrayWithObjects(values));
}
PXValue dict(std::initializer_list<PXDictionary::Entry> entries) {
  return PXValue(PXDictionary::dictionaryWithEntries(entries));
}

// The worked example's object, with a few more keys for the other rows.
PXValue world() {
  return dict({{"version", dict({{"os", "10.10"}})},
               {"name", "abc"},
               {"nums", array({1, 5})},
               {"one", 1},
               {"size", 7},
               {"words", array({"Pear", "Éclair"})},
               {"text", "Crème Brûlée"},
               {"dict", dict({{"k", "v"}, {"size", 2}})},
               {"empty", ""},
               {"nothing", PXValue::null()},
               {"when", PXDate(1000)},
               {"later", PXDate(2000)}});
}

PXRef<PXDictionary> bindings() {
  return PXDictionary::dictionaryWithEntries({{"fnc0", true},
                                              {"fnc1", "x"},
                                              {"n", 3},
                                              {"nothing", PXValue::null()},
                                              {"pattern", "a.+"},
                                              {"badPattern", "a("}});
}

constexpr const char* kParseError = "parse";  // the syntax-error row marker
constexpr const char* kInvalid = "NSInvalidArgumentException";
constexpr const char* kUndefined = "NSUnknownKeyException";
constexpr const char* kRange = "NSRangeException";

struct Row {
  const char* rule;
  const char* answer;            // "YES", "NO", kParseError, or an exception name
  const char* reason = "";       // the reason's beginning, for exceptions
  const char* object = "world";  // "world", "host", "text", "none"
  bool bound = true;             // with bindings()
};

// Every rule of the language's reference, one row each.
const Row kRows[] = {
    // -- grammar: precedence, keywords, predicates only --
    {"1 == 1 OR 1 == 2 AND 1 == 3", "YES"},
    {"(1 == 1 OR 1 == 2) AND 1 == 3", "NO"},
    {"1 == 2 AND 1 == 3 OR 1 == 1", "YES"},
    {"NOT 1 == 2 AND 1 == 2", "NO"},  // (NOT a) AND b
    {"NOT (1 == 2 AND 1 == 2)", "YES"},
    {"NOT NOT 1 == 1", "YES"},
    {"! 1 == 2 && 2 == 2", "YES"},
    {"1 == 2 || 2 == 2", "YES"},
    {"1 == 1 and 2 == 2 Or 1 == 3", "YES"},
    {"TRUEPREDICATE", "YES"},
    {"FALSEPREDICATE", "NO"},
    {"not falsepredicate", "YES"},
    {"((1 + 1)) * 2 == 4 AND (1 == 1)", "YES"},
    {"$fnc0", kParseError},
    {"1", kParseError},
    {"TRUE", kParseError},
    {"0 || 1", kParseError},
    {"name ==", kParseError},
    {"== 1", kParseError},
    {"(1 == 1", kParseError},
    {"1 == 1)", kParseError},
    {"1 == 1 AND", kParseError},
    {"", kParseError},
    {"name == 'abc", kParseError},
    {"a. == 1", kParseError},
    {"x.size == 1", kParseError},  // reserved word as a key
    {"size == 7", kParseError},
    {"SUBQUERY(nums, $x, $x > 1).@count == 1", kParseError},
    {"CAST('1', 'NSNumber') == 1", kParseError},
    {"ANYKEY == 1", kParseError},
    {"name ==[x] 'a'", kParseError},
    {"name ==[] 'a'", kParseError},
    {"3 BETWEEN[c] {1, 5}", kParseError},
    {"1 == 1 & 2 == 2", kParseError},
    {"0x == 16", kParseError},
    {"12abc == 12", kParseError},
    {"'\\u12' == 1", kParseError},
    {"name == 'a' 'b'", kParseError},
    {"nums[FIRST == 1", kParseError},
    {"{1, 2 == 1", kParseError},
    {"FIRST == 1", kParseError},
    {"name ~ 'a'", kParseError},
    // -- literals --
    {"12 == 12", "YES"},
    {"-1 < 0", "YES"},
    {"1.5e1 == 15", "YES"},
    {"0x10 == 16 AND 0X1f == 31", "YES"},
    {"0o17 == 15", "YES"},
    {"0b101 == 5", "YES"},
    {"18446744073709551615 > 9223372036854775807", "YES"},
    {"'a' == \"a\"", "YES"},
    {"\"it's\" == 'it\\'s'", "YES"},  // the two quote kinds do not end each other
    {"'say \"hi\"' == \"say \\\"hi\\\"\"", "YES"},
    {"'\\n\\t\\r' == \"\\n\\t\\r\"", "YES"},
    {"'\\u00e9' == 'é'", "YES"},
    {"'\\ud83d\\ude00' == '😀'", "YES"},
    {"'\\q' == 'q'", "YES"},
    {"'a\\\\b' LIKE 'a\\\\\\\\b'", "YES"},  // the text a\b against the pattern a\\b
    {"YES == 1 AND TRUE == YES", "YES"},
    {"NO == 0 AND FALSE == NO", "YES"},
    {"NULL == nil", "YES"},
    {"nothing == NULL", "YES"},  // a null value counts as absent
    // -- identifiers and key paths --
    {"#size == 7", "YES"},
    {"dict.#size == 2", "YES"},
    {"SELF.name == 'abc'", "YES"},
    {"nums.@count == 2", "YES"},
    {"version.os == '10.10'", "YES"},
    {"version.missing == nil", "YES"},
    {"SELF == 'héllo'", "YES", "", "text"},
    {"name == nil AND version.os == nil", "YES", "", "none"},
    // -- expressions --
    {"{1, 2} == {1, 2}", "YES"},
    {"{1, 2} == {2, 1}", "NO"},
    {"{} == {}", "YES"},
    {"{1, nil} == {1, NULL}", "YES"},
    {"$n + 1 == 4", "YES"},
    {"-$n == -3", "YES"},
    {"1 + 2 * 3 == 7", "YES"},
    {"(1 + 2) * 3 == 9", "YES"},
    {"10 - 2 - 3 == 5", "YES"},
    {"2 ** 3 ** 2 == 64", "YES"},  // left to right
    {"7 / 2 == 3.5", "YES"},
    {"9223372036854775807 + 1 > 9223372036854775807", "YES"},  // overflow goes to double
    {"one * 2.5 == 2.5", "YES"},
    {"'a' + 1 == 2", kInvalid, "Can't do arithmetic"},
    {"-name == 1", kInvalid, "Can't do arithmetic"},
    {"missing + 1 == 1", kInvalid, "Can't do arithmetic"},
    {"nums[0] == 1 AND nums[1] == 5", "YES"},
    {"nums[FIRST] == 1 AND nums[LAST] == 5 AND nums[SIZE] == 2", "YES"},
    {"{1, 2, 3}[1] == 2", "YES"},
    {"dict['k'] == 'v' AND dict[SIZE] == 2", "YES"},
    {"dict['none'] == nil", "YES"},
    {"missing[0] == nil", "YES"},
    {"nums[5] == 1", kRange, "*** -[PXArray objectAtIndex:]: index (5) beyond bounds (2)"},
    {"nums['a'] == 1", kInvalid, "Can't index an array"},
    {"one[0] == 1", kInvalid, "Can't index"},
    {"$nothing == nil", "YES"},
    {"$fnc9 == 1", kInvalid, "Can't get value for 'fnc9' in bindings"},
    {"$fnc0 == YES", kInvalid, "Can't get value for 'fnc0' in bindings", "world", false},
    // -- == and != --
    {"missing == nil", "YES"},
    {"missing != nil", "NO"},
    {"missing == 1", "NO"},
    {"1 == missing", "NO"},
    {"missing != 1", "YES"},
    {"'abc' == 'ABC'", "NO"},
    {"'abc' ==[c] 'ABC'", "YES"},
    {"'café' ==[d] 'cafe'", "YES"},
    {"'CAFÉ' ==[cd] 'cafe'", "YES"},
    {"'CAFÉ' ==[c] 'cafe'", "NO"},
    {"'Straße' ==[c] 'STRASSE'", "YES"},
    {"'a' =[nl] 'a' AND 'a' <> 'b'", "YES"},
    {"4 == 4.0", "YES"},
    {"'1' == 1", "NO"},
    {"'1' != 1", "YES"},
    {"nums == {1, 5}", "YES"},
    {"nums == {1, 5.0}", "YES"},
    {"nums == {5, 1}", "NO"},
    {"dict == dict AND when == when", "YES"},
    // -- ordering --
    {"missing < 5", "NO"},
    {"5 > missing", "NO"},
    {"missing <= nil AND missing >= nil", "YES"},
    {"missing < nil", "NO"},
    {"missing > nil", "NO"},
    {"'10.7' >= '10.6'", "YES"},
    {"'10.10' >= '10.6'", "NO"},
    {"'B' > 'a'", "NO"},  // code units: "B" sorts before "a"
    {"'B' >[c] 'a'", "YES"},
    {"'é' < 'f'", "NO"},
    {"'é' <[d] 'f'", "YES"},
    {"1 < 2.5 AND 2 =< 2 AND 3 => 3 AND 3 >= 2 AND 1 <= 1", "YES"},
    {"YES > NO", "YES"},
    {"when < later", "YES"},
    {"'1' < 2", kInvalid, "Can't compare"},
    {"nums > 1", kInvalid, "Can't compare"},
    {"when < 5", kInvalid, "Can't compare"},
    // -- BEGINSWITH, ENDSWITH, CONTAINS on strings --
    {"name BEGINSWITH 'ab'", "YES"},
    {"name ENDSWITH 'bc'", "YES"},
    {"name CONTAINS 'b'", "YES"},
    {"name BEGINSWITH 'AB'", "NO"},
    {"name BEGINSWITH[c] 'AB'", "YES"},
    {"text CONTAINS[cd] 'brulee'", "YES"},
    {"text CONTAINS[c] 'brulee'", "NO"},
    {"text ENDSWITH[d] 'Brulee'", "YES"},
    {"text BEGINSWITH[cd] 'CREME'", "YES"},
    {"'Café' CONTAINS[c] 'cafe'", "NO"},  // a letter is not split from its accent
    {"name CONTAINS ''", "NO"},
    {"name BEGINSWITH ''", "NO"},
    {"name ENDSWITH ''", "NO"},
    {"missing BEGINSWITH 'a'", "NO"},
    {"name BEGINSWITH missing", "NO"},
    {"one BEGINSWITH '1'", kInvalid, "Can't do a substring operation with something that isn't a string"},
    {"name ENDSWITH 1", kInvalid, "Can't do a substring operation with something that isn't a string"},
    // -- LIKE --
    {"name LIKE 'a?c'", "YES"},
    {"'ac' LIKE 'a?c'", "NO"},
    {"name LIKE 'a*'", "YES"},
    {"name LIKE '*b*'", "YES"},
    {"name LIKE 'b*'", "NO"},
    {"name LIKE 'ab'", "NO"},  // the whole string
    {"'aXbXc' LIKE 'a*b*c'", "YES"},
    {"'abcbd' LIKE '*b?'", "YES"},
    {"'a.c' LIKE 'a.c'", "YES"},
    {"'abc' LIKE 'a.c'", "NO"},  // "." is literal
    {"'a(c' LIKE 'a(c'", "YES"},
    {"'a[b]' LIKE 'a[b]'", "YES"},
    {"'ab' LIKE 'a[b]'", "NO"},
    {"'a*c' LIKE 'a\\\\*c'", "YES"},  // \* is a literal star
    {"'abc' LIKE 'a\\\\*c'", "NO"},
    {"'a?' LIKE 'a\\\\?'", "YES"},
    {"'ab' LIKE 'a\\\\?'", "NO"},
    {"name LIKE 'abc\\\\'", kInvalid,
     "The backslash is a wildcard char, and cannot appear unescaped at the end of a string."},
    {"name LIKE ''", "NO"},
    {"'' LIKE ''", "NO"},
    {"'ABC' LIKE[c] 'a*'", "YES"},
    {"'Éa' LIKE[cd] 'e?'", "YES"},
    {"'é' LIKE '?'", "YES"},  // one character, two bytes
    {"missing LIKE 'a'", "NO"},
    {"one LIKE '1'", kInvalid, "Can't do a substring operation"},
    // -- MATCHES --
    {"name MATCHES 'a.c'", "YES"},
    {"name MATCHES 'b'", "NO"},  // the whole string
    {"name MATCHES '.*b.*'", "YES"},
    {"name MATCHES 'ABC'", "NO"},
    {"name MATCHES[c] 'ABC'", "YES"},
    {"'café' MATCHES[d] 'cafe'", "YES"},
    {"'café' MATCHES 'cafe'", "NO"},
    {"name MATCHES $pattern", "YES"},
    {"name MATCHES ''", "NO"},
    {"missing MATCHES 'a'", "NO"},
    {"name MATCHES '('", kInvalid, "Can't do regex matching, reason:"},
    {"name MATCHES $badPattern", kInvalid, "Can't do regex matching, reason:"},
    {"1 == 2 AND name MATCHES '('", "NO"},  // a bad constant pattern raises only when used
    {"one MATCHES '1'", kInvalid, "Can't do regex matching"},
    // -- IN and CONTAINS on collections --
    {"1 IN nums", "YES"},
    {"3 IN nums", "NO"},
    {"1.0 IN nums", "YES"},
    {"'1' IN nums", "NO"},
    {"nums CONTAINS 5", "YES"},
    {"'v' IN dict", "YES"},  // a dictionary's values
    {"'k' IN dict", "NO"},
    {"dict CONTAINS 'v'", "YES"},
    {"'b' IN name", "YES"},
    {"'B' IN[c] name", "YES"},
    {"'ABC' IN[c] {'abc'}", "NO"},  // options do not reach array members
    {"missing IN nums", "NO"},
    {"1 IN missing", "NO"},
    {"1 IN name", kInvalid, "Can't do a substring operation with something that isn't a string"},
    {"1 IN one", kInvalid, "Can't use in/contains operator with collection"},
    {"one CONTAINS 1", kInvalid, "Can't use in/contains operator with collection"},
    // -- BETWEEN --
    {"3 BETWEEN {1, 5}", "YES"},
    {"3 BETWEEN {5, 1}", "YES"},  // swapped bounds
    {"6 BETWEEN {1, 5}", "NO"},
    {"1 BETWEEN {1, 5} AND 5 between {1, 5}", "YES"},
    {"3 BETWEEN nums", "YES"},
    {"'b' BETWEEN {'a', 'c'}", "YES"},
    {"missing BETWEEN {1, 2}", "NO"},
    {"3 BETWEEN missing", "NO"},
    {"3 BETWEEN {1}", kInvalid, "Can't use between operator with rhs"},
    {"3 BETWEEN {1, 2, 3}", kInvalid, "Can't use between operator with rhs"},
    {"3 BETWEEN 4", kInvalid, "Can't use between operator with rhs"},
    {"'b' BETWEEN {1, 2}", kInvalid, "Can't compare"},
    // -- ANY, SOME, ALL, NONE --
    {"ANY nums > 3", "YES"},
    {"ALL nums > 0", "YES"},
    {"SOME nums == 5", "YES"},
    {"NONE nums > 5", "YES"},
    {"NONE nums == 5", "NO"},
    {"any nums IN {5}", "YES"},
    {"ANY words ==[cd] 'eclair'", "YES"},
    {"ANY missing == 1", "NO"},
    {"ALL missing == 1", "YES"},
    {"NONE missing == 1", "YES"},
    {"ALL {} == 1", "YES"},
    {"ANY {} == 1", "NO"},
    {"ANY name == 'a'", kInvalid, "The left hand side for an ALL or ANY operator must be an array."},
    {"ALL one == 1", kInvalid, "The left hand side for an ALL or ANY operator must be an array."},
    // -- short-circuit: what is not evaluated cannot raise --
    {"1 == 2 AND $unbound == 1", "NO"},
    {"1 == 1 OR $unbound == 1", "YES"},
    {"1 == 1 AND $unbound == 1", kInvalid, "Can't get value for 'unbound' in bindings"},
    {"1 == 2 OR $unbound == 1", kInvalid, "Can't get value for 'unbound' in bindings"},
    {"name == 'zzz' AND shoeSize == 1", "NO", "", "host"},
    // -- unknown keys --
    {"shoeSize == 1", kUndefined, "[<PredicateTestHost 0x", "host"},
    {"name == 'abc' AND shoe.#size.#in == 1", kUndefined, "[<PredicateTestHost 0x", "host"},
    {"name.length == 3", kUndefined, "[<NSString 0x"},
    {"version.os == '10.10'", "YES", "", "host"},  // one call for the whole path
    // -- the worked rules --
    {"version.os >= '10.6'", "NO"},
    {"version.os BEGINSWITH '10.'", "YES"},
    {"$fnc0 == YES AND $fnc1 != 'x'", "NO"},
    {"$fnc0 == YES AND $fnc1 == 'x'", "YES"},
    {"ANY nums > 3 AND NOT ALL nums > 3", "YES"},
};

PXValue objectNamed(std::string_view name, PXRef<PredicateTestHost>& host) {
  if (name == "world") return world();
  if (name == "text") return "héllo";
  if (name == "host") return PXValue(host = PXMake<PredicateTestHost>());
  return {};
}

// "YES" / "NO", or "<exception name>|<reason>".
std::string outcome(const PXPredicate& predicate, const PXValue& object, const PXDictionary* variables) {
  try {
    return predicate.evaluateWithObject(object, variables) ? "YES" : "NO";
  } catch (const PXException& e) {
    return e.name().str() + "|" + e.reason().str();
  }
}

TEST(PXPredicate, TheLanguageRowByRow) {
  const PXRef<PXDictionary> variables = bindings();
  for (const Row& row : kRows) {
    SCOPED_TRACE(row.rule);
    PXRef<PredicateTestHost> host;
    const PXValue object = objectNamed(row.object, host);
    const PXDictionary* bound = row.bound ? variables.get() : nullptr;
    PXRef<PXPredicate> predicate;
    try {
      predicate = PXPredicate::predicateWithFormat(row.rule);
    } catch (const PXException& e) {
      EXPECT_STREQ(row.answer, kParseError) << e.reason().str();
      EXPECT_EQ(e.name(), kInvalid);
      const std::string prefix = std::string("Unable to parse the format string \"") + row.rule + "\"";
      EXPECT_EQ(e.reason().str().rfind(prefix, 0), 0u) << e.reason().str();
      continue;
    }
    ASSERT_STRNE(row.answer, kParseError) << "parsed as " << predicate->predicateFormat().str();
    const std::string got = outcome(*predicate, object, bound);
    const std::string answer = row.answer;
    if (answer == "YES" || answer == "NO") {
      EXPECT_EQ(got, answer);
    } else {
      EXPECT_EQ(got.rfind(answer + "|" + row.reason, 0), 0u) << got;
    }
    // The canonical text reads back as the same predicate, and prints the same.
    const PXString format = predicate->predicateFormat();
    PXRef<PXPredicate> again;
    ASSERT_NO_THROW(again = PXPredicate::predicateWithFormat(format.view())) << format.str();
    EXPECT_EQ(again->predicateFormat(), format);
    PXRef<PredicateTestHost> otherHost;
    const std::string gotAgain = outcome(*again, objectNamed(row.object, otherHost), bound);
    EXPECT_EQ(gotAgain.substr(0, gotAgain.find(" 0x")), got.substr(0, got.find(" 0x"))) << format.str();
  }
}

TEST(PXPredicate, KeyPathsAreAskedInOneCallAndKeysByValueForKey) {
  auto host = PXMake<PredicateTestHost>();
  auto rule =
      PXPredicate::predicateWithFormat("version.os == '10.10' AND name == 'abc' AND SELF.name != 'x'");
  EXPECT_TRUE(rule->evaluateWithObject(PXValue(host)));
  const std::vector<std::string> expected = {"path:version.os", "key:name", "key:name"};
  EXPECT_EQ(host->asked, expected);
}

TEST(PXPredicate, CanonicalTextSpellsEveryConstruct) {
  struct FormatRow {
    const char* rule;
    const char* format;
  } rows[] = {
      {"a = 1 or b = 2 and not c = 3", "a == 1 OR (b == 2 AND NOT c == 3)"},
      {"any x.y ==[CD] 'q' && y <> nil", "ANY x.y ==[cd] \"q\" AND y != NULL"},
      {"x BETWEEN {-1, 2.5} OR x IN {YES, NO}", "x BETWEEN {-1, 2.5} OR x IN {YES, NO}"},
      {"(a + 1) * -b ** 2 == $v[FIRST].#size", "(a + 1) * (-b ** 2) == $v[FIRST].#size"},
      {"SELF.list.@count =< 1e999", "list.@count <= 1e999"},
      {"x == 'tab\\there \"q\"'", "x == \"tab\\there \\\"q\\\"\""},
      {"x == 2.0 AND y == 0x10", "x == 2.0 AND y == 16"},
  };
  for (const FormatRow& row : rows) {
    SCOPED_TRACE(row.rule);
    EXPECT_EQ(PXPredicate::predicateWithFormat(row.rule)->predicateFormat(), row.format);
    EXPECT_EQ(PXPredicate::predicateWithFormat(row.rule)->description(), row.format);
  }
}

// The named limits, at N - 1, N and N + 1.
TEST(PXPredicate, LimitsHoldExactlyAtTheirValues) {
  auto parses = [](const std::string& rule) {
    try {
      return PXPredicate::predicateWithFormat(rule)->evaluateWithObject(world());
    } catch (const PXException& e) {
      EXPECT_EQ(e.reason().str().rfind("Unable to parse the format string \"", 0), 0u);
      return false;
    }
  };
  auto ofLength = [](size_t length) {  // "name != '…'" of exactly `length` bytes
    const std::string head = "name != '";
    return head + std::string(length - head.size() - 1, 'x') + "'";
  };
  EXPECT_TRUE(parses(ofLength(kPXPredicateMaxFormatLength - 1)));
  EXPECT_TRUE(parses(ofLength(kPXPredicateMaxFormatLength)));
  EXPECT_FALSE(parses(ofLength(kPXPredicateMaxFormatLength + 1)));

  const size_t n = kPXPredicateMaxNestingDepth;
  auto groups = [](size_t depth) { return std::string(depth, '(') + "1 == 1" + std::string(depth, ')'); };
  auto nots = [](size_t depth) {  // an even count of NOTs keeps the answer YES
    std::string rule;
    for (size_t i = 0; i < depth; ++i) rule += "NOT ";
    return rule + (depth % 2 ? "1 == 2" : "1 == 1");
  };
  auto expression = [](size_t depth) {
    return std::string(depth, '(') + "1" + std::string(depth, ')') + " == 1";
  };
  auto braces = [](size_t depth) { return std::string(depth, '{') + std::string(depth, '}') + " != nil"; };
  auto minus = [](size_t depth) { return std::string(depth, '-') + "one == " + (depth % 2 ? "-1" : "1"); };
  for (auto make : {+groups, +nots, +expression, +braces, +minus}) {
    SCOPED_TRACE(make(2));
    EXPECT_TRUE(parses(make(n - 1)));
    EXPECT_TRUE(parses(make(n)));
    EXPECT_FALSE(parses(make(n + 1)));
  }
}

TEST(PXPredicate, OneParsedPredicateServesManyThreads) {
  auto rule = PXPredicate::predicateWithFormat(
      "version.os BEGINSWITH[cd] '10.' AND ANY nums > 3 AND name MATCHES 'a.c' AND $fnc0 == YES");
  const PXValue object = world();
  const PXRef<PXDictionary> variables = bindings();
  std::atomic<int> yes{0};
  std::vector<std::thread> threads;
  for (int t = 0; t < 4; ++t) {
    threads.emplace_back([&] {
      for (int i = 0; i < 200; ++i) yes += rule->evaluateWithObject(object, variables.get()) ? 1 : 0;
    });
  }
  for (std::thread& thread : threads) thread.join();
  EXPECT_EQ(yes.load(), 800);
}

}  // namespace

namespace {

// A pattern that backtracks without end is stopped by the time limit, and
// raises like any other regular-expression failure.
TEST(PXPredicate, RunawayRegularExpressionsAreStopped) {
  auto rule = PXPredicate::predicateWithFormat("SELF MATCHES '(a|aa)+(b|c)+(a|aa)+z'");
  const PXValue subject = std::string(4000, 'a') + std::string(4000, 'b') + std::string(4000, 'a');
  try {
    (void)rule->evaluateWithObject(subject);
    FAIL() << "expected the match to be stopped";
  } catch (const PXException& e) {
    EXPECT_EQ(e.reason(), "Can't do regex matching, reason: U_REGEX_TIME_OUT");
  }
}

}  // namespace
