// `pxkit check` and `pxkit facts`: the rule checker from the command line.
//
//   pxkit check [--explain] [--root DIR] [--] RULE
//       Prints YES or NO and exits 0 or 1; a rule that cannot be parsed or
//       evaluated prints the exception and exits 2. --explain first prints the
//       rule as preprocessed ("${...}" calls replaced by $fnc<N> variables)
//       and the variables with their values and kinds.
//   pxkit facts [--root DIR] [KEYPATH|CALL ...]
//       Prints each key path ("version.os") or call ("${version(of=os)}") with
//       its value, "(none)" when absent; without arguments a set of useful
//       ones. Exits 0.
// --root reads the system facts (os-release, kernel release, model) below DIR
// instead of "/": the way to try rules against another machine's files.
// The checker's log lines ("Unterminated function: ...") go to standard error.
#pragma once

#include <string_view>
#include <vector>

namespace PXKitRules {

int check(const std::vector<std::string_view>& args);
int facts(const std::vector<std::string_view>& args);

}  // namespace PXKitRules
