#pragma once

namespace yax {

// Where the loggers send priority, tag and text besides the console line.
void logSink(int priority, const char *tag, const char *text);

}  // namespace yax
