// What the layer has sent to syslog in this process, newest last, each line as "<priority> text".
// Any thread.
#pragma once

#include <string>
#include <vector>

std::vector<std::string> SyslogLines();
