// What the layer has sent to syslog in this process since the last call, each line as "<priority>
// text". Any thread.
#pragma once

#include <string>
#include <vector>

std::vector<std::string> TakeSyslogLines();
