#include "kemdctl/ui/output_file.h"

#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <string>

#include "kemdctl/ui/command.h"
#include "kemdctl/ui/text.h"

std::string ErrorText(int error) {
    std::string text = error == EINVAL ? "not a regular file" : std::strerror(error);
    const bool isDenied = error == EACCES || error == EPERM;
    if (isDenied && geteuid() != 0) text += "; run it as root";
    return text;
}

int FileError(const char* action, const char* path) {
    const int error = errno;
    Complain("cannot %s %s: %s", action, Printable(path).c_str(), ErrorText(error).c_str());
    return kError;
}

int WriteOutputFile(const char* path, mode_t mode,
                    const std::function<bool(const FileSink&)>& produce) {
    OutputFile file(path, mode);
    const FileSink sink = [&file](std::string_view text) { return file.Write(text); };
    return file.Open() && produce(sink) && file.Commit() ? kYes : FileError("write", path);
}
