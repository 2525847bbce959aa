// `pxkit check` and `pxkit facts`: the rule checker from the command line.
//
//   pxkit check [--explain] [--root DIR] [--] RULE
//       Prints YES or NO and exits 0 or 1; a rule that cannot be parsed or
//       evaluated prints the exception and exits 2. --explain first prints the
//       rule as preprocessed ("${...}" calls replaced by $fnc<N> variables)
//       and the variables with their values and kinds.
//   pxkit facts [--json] [--root DIR] [KEYPATH|CALL ...]
//       Prints each key path ("version.os") or call ("${version(of=os)}") with
//       its value, "(none)" when absent. Without arguments: a set of useful
//       ones, then every common metric this machine would report (identifier,
//       primary, secondary, kind; "-" for an absent qualifier) in catalogue
//       order, then every registry class the kit maps with the number of
//       services it finds. --json prints the same as one JSON document:
//       {"facts": {keypath: value|null}, "commonMetrics": [{"identifier",
//       "primary", "secondary", "kind"}], "registryClasses": {class: count}}
//       (the last two only without arguments). Exits 0.
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
