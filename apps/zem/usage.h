// What the values of options may be, what help says of a verb, and the sentence for a command line
// that does not fit: what is wrong with it, and what to do. Pure functions; main thread.
#pragma once

#include <cstdint>
#include <limits>
#include <string>
#include <vector>

namespace CLI {
class App;
class ParseError;
class Validator;
}  // namespace CLI

namespace zem {

inline constexpr uint64_t kAnyNumber = std::numeric_limits<uint32_t>::max();

// A whole number, decimal or with 0x in front. Help tells the bounds, but for `most` kAnyNumber.
// The parser must take its result (Option::transform): by itself it reads 010 as eight.
CLI::Validator WholeNumber(uint64_t least, uint64_t most = kAnyNumber);
// A decimal number, with a point or without.
CLI::Validator Number(double least, double most);
CLI::Validator OneOf(const std::vector<std::string>& words);

// The help of the verb that `words` name, {"config", "push"}; none is the program. Throws
// CZemError(kUsage) where there is no such verb.
std::string HelpOfVerb(const CLI::App& program, const std::vector<std::string>& words);

// `app` as the parser left it when it threw `error`.
std::string UsageText(const CLI::App& app, const CLI::ParseError& error);

}  // namespace zem
