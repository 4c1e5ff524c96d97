// Reads compressed files through the system's gzip, if there is one.
#pragma once

#include <functional>

// Hands the text of the compressed file on as a descriptor that is read to its end. The text may be
// short or missing: nothing tells of a failure.
void Gunzip(int file, const std::function<void(int text)>& read);
