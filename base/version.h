// Who this program is: constants that the build supplies.
#pragma once

#include <cstdint>

// Begins the daemon's own messages.
inline constexpr const char* kTag = "KEMD";

// The whole record is part of the build; not every field is shown.
struct VersionRecord {
    const char* programName;
    const char* version;    // "major.minor-build"
    const char* milestone;  // "-" for none
    const char* buildDate;  // "YYYY/MM/DD-hh:mm"
    const char* installPath;
    const char* description;
};
extern const VersionRecord kVersion;

// The version as programs and packages show it: "major.minor.build".
extern const char* const kPackageVersion;

// The three numbers of the version text; one that does not parse is 0.
struct VersionNumbers {
    unsigned major;
    unsigned minor;
    unsigned build;
};
VersionNumbers ParseVersion(const char* text);
