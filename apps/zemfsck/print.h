// A report for people, and as JSON for programs.
#pragma once

#include "apps/zemfsck/check.h"

#include <string>

namespace zemfsck {

// Several lines, the last one the verdict.
std::string AsText(const std::string& name, const Report& report);
// One line, one object; docs/media.md has its members.
std::string AsJson(const std::string& name, const Report& report);
// What a file that could not be checked gets instead.
std::string FailureAsText(const std::string& name, HRESULT hr);
std::string FailureAsJson(const std::string& name, HRESULT hr);

}  // namespace zemfsck
