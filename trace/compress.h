// Compression of the start-up ring buffer by the gzip tool.
#pragma once

#include <string>

// The shell command; quoted where the path has anything but plain characters, so that the name of a
// directory can never run a command.
std::string CompressCommand(const char* path);

// Runs it and waits for its end, whatever that is. False when it could not be started.
bool CompressFile(const char* path);
