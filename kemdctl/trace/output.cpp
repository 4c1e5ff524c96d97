#include "kemdctl/trace/output.h"

#include <unistd.h>

#include <cstdio>
#include <cstdlib>

#include "kemdctl/ui/command.h"
#include "kemdctl/ui/output_file.h"

namespace {

bool WantsColor(ColorMode mode, bool isTerminal) {
    if (mode != ColorMode::kAuto) return mode == ColorMode::kAlways;
    const char* const refused = std::getenv("NO_COLOR");
    const char* const terminal = std::getenv("TERM");
    const bool isRefused = refused != nullptr && *refused != '\0';
    return isTerminal && !isRefused && terminal != nullptr && std::string_view(terminal) != "dumb";
}

}  // namespace

Output::Output(const TraceOptions& options)
    : m_isTerminal(isatty(STDOUT_FILENO) == 1),
      m_hasColor(WantsColor(options.color, m_isTerminal)) {
    m_text.reserve(2 * kEnough);
    const bool goesOn = options.follows || options.waitFor;
    if (m_isTerminal && options.mayPage && !goesOn) m_pagerCommand = ChoosePager();
}

void Output::Send() {
    if (!m_pagerCommand.empty() && !m_text.empty()) {
        // Without a pager it is shown all the same.
        (void)m_pager.Start(m_pagerCommand);
        m_pagerCommand.clear();
    }
    if (m_pager.IsRunning()) {
        m_isLeft = m_isLeft || !WriteFully(m_pager.Get(), m_text);
    } else {
        Write(m_text);
    }
    m_text.clear();
}

void Output::PutBytes(std::string_view bytes) {
    Send();
    Write(bytes);
}

void Output::Flush() {
    Send();
    if (!m_pager.IsRunning()) FlushOutput();
}

bool Output::IsClosed() const {
    return m_isLeft || HasWriteFailed();
}
