// zemhost under the system's service control (Windows). Main thread, and the threads that the
// service control calls on.
#pragma once

// Makes WaitForStopSignal return `name`, a literal. False: it was asked for already. Any thread.
bool RequestStop(const char* name);
