// The daemon's log, as fuzz targets find it on standard error.
#pragma once

#include <string>

namespace session_service {

// Sends the log to standard error. To be called before any code that logs.
void openLog();

// A line of that log: any control character in the message is escaped.
std::string errorLine(const std::string& message);
std::string debugLine(const std::string& message);

// Whether the text is nothing but such lines.
bool isLog(const std::string& text);

}  // namespace session_service
