#pragma once

// Information-priority message with the library's log tag "QUNO_ALGO": the Android
// log on Android, standard error elsewhere.
void logInfo(const char* message);
