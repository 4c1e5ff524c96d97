#include "kemdctl/check/findings.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <iterator>

#include "kemdctl/ui/report.h"
#include "kemdctl/ui/text.h"

const char* Name(Severity severity) {
    switch (severity) {
        case Severity::kOk:
            return "ok";
        case Severity::kWarning:
            return "warning";
        case Severity::kError:
            return "error";
    }
    return "";
}

void Finding::Put(ReportWriter& report) const {
    report.Object({}, [&] {
        report.Text("severity", Name(severity));
        report.Text("what", what);
        report.Text("action", action);
    });
}

void Findings::CannotLook(const std::string& path, int error) {
    m_isComplete = false;
    Complain("cannot look at %s: %s%s", Printable(path).c_str(),
             error == EINVAL ? "not a regular file" : std::strerror(error),
             error == EACCES || error == EPERM ? "; run kemdctl as root" : "");
}

std::vector<Finding> Findings::Problems() const {
    std::vector<Finding> found;
    std::copy_if(m_all.begin(), m_all.end(), std::back_inserter(found),
                 [](const Finding& each) { return each.severity != Severity::kOk; });
    return found;
}

void Findings::Add(Severity severity, std::string what, std::string action) {
    const bool isKnown = std::any_of(m_all.begin(), m_all.end(),
                                     [&what](const Finding& each) { return each.what == what; });
    if (!isKnown) m_all.push_back({severity, std::move(what), std::move(action)});
}
