#include <gtest/gtest.h>
#include <pxkit/objects/PXArray.h>
#include <pxkit/objects/PXDictionary.h>
#include <pxkit/objects/PXException.h>
#include <pxkit/rules/PXPredicate.h>

#include <cstring>
#include <iterator>
#include <string>
#include <vector>

namespace {

PXValue array(std::initializer_list<PXValue> values) {
  return PXValue(PXArray::arrayWithObjects(values));
}
PXValue dict(std::initializer_list<PXDictionary::Entry> entries) {
  return PXValue(PXDictionary::dictionaryWithEntries(entries));
}

PXValue world() {
  return dict({{"version", dict({{"os", "10.10"}})},
               {"name", "abc"},
               {"nums", array({1, 5})},
               {"one", 1},
               {"size", 7},
               {"words", array({"Pear", "Éclair"})},
               {"text", "Crème Brûlée"},
               {"dict", dict({{"k", "v"}, {"size", 2}})},
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

constexpr const char* kParseError = "parse";  // the syntax-error marker

const char* const kUnparsable[] = {"$fnc0", "", "size == 7", "SUBQUERY(nums, $x, $x > 1).@count == 1",
                                   "CAST('1', 'NSNumber') == 1"};

// Rules grouped by their answer: "YES", "NO", kParseError or "<exception>|<reason's
// beginning>"; YES rules join cases with AND, NO rules with OR, so one wrong case
// turns the rule. Kept on purpose: "**" goes left to right; strings order by code
// units; an empty needle never matches; a bad constant pattern raises only when used.
struct Group {
  const char* answer;
  std::vector<const char*> rules;
  const char* object = "world";  // "world", "text", "none"
  bool bound = true;             // with bindings()
};

const Group kGroups[] = {
    {"YES",
     {
         "1 == 1 OR 1 == 2 AND 1 == 3",
         "NOT (1 == 2 AND 1 == 2) AND NOT NOT 1 == 1 AND ! 1 == 2 && 2 == 2",
         "12 == 12 AND -1 < 0 AND 1.5e1 == 15 AND 0x10 == 16 AND 0X1f == 31 AND 0o17 == 15 AND 0b101 == 5",
         "18446744073709551615 > 9223372036854775807 AND 'a' == \"a\" AND \"it's\" == 'it\\'s'",
         "'say \"hi\"' == \"say \\\"hi\\\"\" AND '\\n\\t\\r' == \"\\n\\t\\r\" AND '\\u00e9' == 'é'",
         "'\\ud83d\\ude00' == '😀' AND '\\q' == 'q' AND 'a\\\\b' LIKE 'a\\\\\\\\b'",
         "YES == 1 AND TRUE == YES AND NO == 0 AND FALSE == NO AND NULL == nil AND nothing == NULL",
         "#size == 7 AND dict.#size == 2 AND SELF.name == 'abc' AND nums.@count == 2",
         "version.os == '10.10' AND version.missing == nil AND version.os BEGINSWITH '10.'",
         "{1, 2} == {1, 2} AND {} == {} AND {1, nil} == {1, NULL} AND $n + 1 == 4 AND -$n == -3",
         "1 + 2 * 3 == 7 AND (1 + 2) * 3 == 9 AND 10 - 2 - 3 == 5 AND 2 ** 3 ** 2 == 64 AND 7 / 2 == 3.5",
         "9223372036854775807 + 1 > 9223372036854775807 AND one * 2.5 == 2.5",
         "nums[0] == 1 AND nums[1] == 5 AND nums[FIRST] == 1 AND nums[LAST] == 5 AND nums[SIZE] == 2",
         "missing[0] == nil AND $nothing == nil AND missing == nil AND missing != 1",
         "'abc' ==[c] 'ABC' AND 'café' ==[d] 'cafe' AND 'CAFÉ' ==[cd] 'cafe' AND 'Straße' ==[c] 'STRASSE'",
         "'a' =[nl] 'a' AND 'a' <> 'b' AND 4 == 4.0 AND '1' != 1 AND nums == {1, 5} AND nums == {1, 5.0}",
         "dict == dict AND when == when AND when < later AND YES > NO AND 2 => 1 AND 1 =< 1 AND "
         "TRUEPREDICATE",
         "missing <= nil AND missing >= nil AND '10.7' >= '10.6' AND 'B' >[c] 'a' AND 'é' <[d] 'f'",
         "name BEGINSWITH 'ab' AND name ENDSWITH 'bc' AND name CONTAINS 'b' AND name BEGINSWITH[c] 'AB'",
         "text CONTAINS[cd] 'brulee' AND text ENDSWITH[d] 'Brulee' AND text BEGINSWITH[cd] 'CREME'",
         "name LIKE 'a?c' AND name LIKE 'a*' AND name LIKE '*b*' AND 'aXbXc' LIKE 'a*b*c'",
         "'abcbd' LIKE '*b?' AND 'a.c' LIKE 'a.c' AND 'a(c' LIKE 'a(c' AND 'a[b]' LIKE 'a[b]'",
         "'a*c' LIKE 'a\\\\*c' AND 'a?' LIKE 'a\\\\?' AND 'ABC' LIKE[c] 'a*' AND 'Éa' LIKE[cd] 'e?'",
         "'é' LIKE '?' AND name MATCHES 'a.c' AND name MATCHES '.*b.*' AND name MATCHES[c] 'ABC'",
         "'café' MATCHES[d] 'cafe' AND name MATCHES $pattern AND $fnc0 == YES AND $fnc1 == 'x'",
         "1 IN nums AND 1.0 IN nums AND nums CONTAINS 5 AND 'v' IN dict AND dict CONTAINS 'v'",
         "'b' IN name AND 'B' IN[c] name AND 3 BETWEEN nums AND 'b' BETWEEN {'a', 'c'}",
         "ANY nums > 3 AND ALL nums > 0 AND SOME nums == 5 AND NONE nums > 5 AND any nums IN {5}",
         "ANY words ==[cd] 'eclair' AND ALL missing == 1 AND NONE missing == 1 AND ALL {} == 1",
     }},
    {"NO",
     {
         "(1 == 1 || 1 == 2) AND 1 == 3",
         "1 == 2 AND $unbound == 1",
         "FALSEPREDICATE OR {1, 2} == {2, 1} OR missing != nil OR missing == 1 OR 1 == missing",
         "'abc' == 'ABC' OR 'CAFÉ' ==[c] 'cafe' OR '1' == 1 OR nums == {5, 1} OR version.os >= '10.6'",
         "'10.10' >= '10.6' OR 'B' > 'a' OR 'é' < 'f' OR ($fnc0 == YES AND $fnc1 != 'x')",
         "name BEGINSWITH 'AB' OR text CONTAINS[c] 'brulee' OR 'Café' CONTAINS[c] 'cafe'",
         "name CONTAINS '' OR name BEGINSWITH '' OR name ENDSWITH '' OR missing BEGINSWITH 'a'",
         "'abc' LIKE 'a.c' OR 'ab' LIKE 'a[b]' OR 'abc' LIKE 'a\\\\*c' OR 'ab' LIKE 'a\\\\?'",
         "name LIKE '' OR '' LIKE '' OR missing LIKE 'a' OR missing MATCHES 'a'",
         "name MATCHES 'b' OR name MATCHES 'ABC' OR 'café' MATCHES 'cafe' OR name MATCHES ''",
         "1 == 2 AND name MATCHES '('",
         "3 IN nums OR '1' IN nums OR 'k' IN dict OR 'ABC' IN[c] {'abc'} OR missing IN nums OR 1 IN missing",
         "6 BETWEEN {1, 5} OR missing BETWEEN {1, 2} OR 3 BETWEEN missing",
     }},
    {"NSInvalidArgumentException|Can't do arithmetic", {"'a' + 1 == 2", "-name == 1", "missing + 1 == 1"}},
    {"NSRangeException|*** -[PXArray objectAtIndex:]: index (5) beyond bounds (2)", {"nums[5] == 1"}},
    {"NSInvalidArgumentException|Can't index an array", {"nums['a'] == 1"}},
    {"NSInvalidArgumentException|Can't get value for 'fnc9' in bindings", {"$fnc9 == 1"}},
    {"NSInvalidArgumentException|Can't get value for 'fnc0' in bindings", {"$fnc0 == YES"}, "world", false},
    {"NSInvalidArgumentException|Can't get value for 'unbound' in bindings",
     {"1 == 1 AND $unbound == 1", "1 == 2 OR $unbound == 1"}},
    {"NSInvalidArgumentException|Can't compare", {"'1' < 2", "nums > 1", "when < 5", "'b' BETWEEN {1, 2}"}},
    {"NSInvalidArgumentException|Can't do a substring operation with something that isn't a string",
     {"one BEGINSWITH '1'", "name ENDSWITH 1", "1 IN name"}},
    {"NSInvalidArgumentException|The backslash is a wildcard char, and cannot appear unescaped at the end "
     "of a string.",
     {"name LIKE 'abc\\\\'"}},
    {"NSInvalidArgumentException|Can't do regex matching, reason:",
     {"name MATCHES '('", "name MATCHES $badPattern"}},
    {"NSInvalidArgumentException|Can't use in/contains operator with collection",
     {"1 IN one", "one CONTAINS 1"}},
    {"NSInvalidArgumentException|Can't use between operator with rhs",
     {"3 BETWEEN {1}", "3 BETWEEN {1, 2, 3}", "3 BETWEEN 4"}},
    {"NSInvalidArgumentException|The left hand side for an ALL or ANY operator must be an array.",
     {"ANY name == 'a'", "ALL one == 1"}},
    {"NSUnknownKeyException|[<NSString 0x", {"name.length == 3"}},
    {"YES", {"SELF == 'héllo'"}, "text"},
    {kParseError, {std::begin(kUnparsable), std::end(kUnparsable)}},
    {"YES", {"name == nil AND version.os == nil"}, "none"},
};

PXValue objectNamed(std::string_view name) {
  if (name == "world") return world();
  if (name == "text") return "héllo";
  return {};
}

std::string outcome(const PXPredicate& predicate, const PXValue& object, const PXDictionary* variables) {
  try {
    return predicate.evaluateWithObject(object, variables) ? "YES" : "NO";
  } catch (const PXException& e) {
    return e.name().str() + "|" + e.reason().str();
  }
}

TEST(PXPredicate, TheLanguageGroupByGroup) {
  const PXRef<PXDictionary> variables = bindings();
  for (const Group& group : kGroups) {
    for (const char* rule : group.rules) {
      SCOPED_TRACE(rule);
      const PXValue object = objectNamed(group.object);
      const PXDictionary* bound = group.bound ? variables.get() : nullptr;
      PXRef<PXPredicate> predicate;
      try {
        predicate = PXPredicate::predicateWithFormat(rule);
      } catch (const PXException& e) {
        EXPECT_STREQ(group.answer, kParseError) << e.reason().str();
        EXPECT_EQ(e.name(), kPXInvalidArgumentException);
        const std::string prefix = std::string("Unable to parse the format string \"") + rule + "\"";
        EXPECT_EQ(e.reason().str().rfind(prefix, 0), 0u) << e.reason().str();
        continue;
      }
      ASSERT_STRNE(group.answer, kParseError) << "parsed as " << predicate->predicateFormat().str();
      const std::string got = outcome(*predicate, object, bound);
      if (std::strchr(group.answer, '|')) {
        EXPECT_EQ(got.rfind(group.answer, 0), 0u) << got;
      } else {
        EXPECT_EQ(got, group.answer);
      }
      // The canonical text reads back as the same predicate, and prints the same.
      const PXString format = predicate->predicateFormat();
      PXRef<PXPredicate> again;
      ASSERT_NO_THROW(again = PXPredicate::predicateWithFormat(format.view())) << format.str();
      EXPECT_EQ(again->predicateFormat(), format);
      const std::string gotAgain = outcome(*again, objectNamed(group.object), bound);
      EXPECT_EQ(gotAgain.substr(0, gotAgain.find(" 0x")), got.substr(0, got.find(" 0x"))) << format.str();
    }
  }
}

// The named limits, at N and N + 1.
TEST(PXPredicate, LimitsHoldExactlyAtTheirValues) {
  auto parses = [](const std::string& rule) {
    try {
      return PXPredicate::predicateWithFormat(rule)->evaluateWithObject(world());
    } catch (const PXException& e) {
      EXPECT_EQ(e.reason().str().rfind("Unable to parse the format string \"", 0), 0u);
      return false;
    }
  };
  const std::string head = "name != '";  // then "x…x'" to the length
  const size_t length = kPXPredicateMaxFormatLength - head.size() - 1, n = kPXPredicateMaxNestingDepth;
  EXPECT_TRUE(parses(head + std::string(length, 'x') + "'"));
  EXPECT_FALSE(parses(head + std::string(length + 1, 'x') + "'"));
  auto groups = [](size_t depth) { return std::string(depth, '(') + "1 == 1" + std::string(depth, ')'); };
  auto nots = [](size_t depth) {  // an even count of NOTs keeps the answer YES
    std::string rule;
    for (size_t i = 0; i < depth; ++i) rule += "NOT ";
    return rule + (depth % 2 ? "1 == 2" : "1 == 1");
  };
  auto braces = [](size_t depth) { return std::string(depth, '{') + std::string(depth, '}') + " != nil"; };
  for (auto make : {+groups, +nots, +braces}) {
    EXPECT_TRUE(parses(make(n))) << make(2);
    EXPECT_FALSE(parses(make(n + 1))) << make(2);
  }
}

// A pattern that backtracks without end is stopped by the time limit.
TEST(PXPredicate, RunawayRegularExpressionsAreStopped) {
  auto rule = PXPredicate::predicateWithFormat("SELF MATCHES '(a|aa)+(b|c)+(a|aa)+z'");
  const PXValue subject = std::string(4000, 'a') + std::string(4000, 'b') + std::string(4000, 'a');
  EXPECT_EQ(outcome(*rule, subject, nullptr),
            "NSInvalidArgumentException|Can't do regex matching, reason: U_REGEX_TIME_OUT");
}

}  // namespace
