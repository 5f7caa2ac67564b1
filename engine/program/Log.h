#pragma once

#include <string>

namespace armengine {

enum class Urgency { error = 3, warning = 4, notice = 5 };

/// Writes a sentence to standard error; for the journal, with its mark of urgency.  Any thread.
void writeLog(Urgency urgency, const std::string& sentence);

/// Tells a service manager that asked for it: "READY=1", "STOPPING=1".  Nothing when nobody asked.
void notifyManager(const std::string& state);

}  // namespace armengine
