// UTF-8, in which the program's own texts are, and the UTF-16 of the system's calls. Ill-formed
// parts become U+FFFD. Any thread.
#pragma once

#include <string>

#include "platform/platform.h"

WString WidenText(const std::string& text);
std::string NarrowText(const WString& text);
