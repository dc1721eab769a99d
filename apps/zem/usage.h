// The sentence for a command line that does not fit: what is wrong with it, and what to do. Pure
// functions; main thread.
#pragma once

#include <string>
#include <vector>

namespace CLI {
class App;
class ParseError;
}  // namespace CLI

namespace zem {

class CVerb;

// The help of the verb that `words` name, {"config", "push"}; none is the program. Throws
// CZemError(kUsage) where there is no such verb.
std::string HelpOfVerb(CVerb program, const std::vector<std::string>& words);

// `app` as the parser left it when it threw `error`.
std::string UsageText(const CLI::App& app, const CLI::ParseError& error);

}  // namespace zem
