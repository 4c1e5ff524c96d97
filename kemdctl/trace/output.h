// Where the shown records go: standard output, or a pager on a terminal.
#pragma once

#include <sys/types.h>

#include <string>
#include <string_view>

#include "base/unique_fd.h"
#include "kemdctl/trace/options.h"

// KEMDCTL_PAGER, PAGER, or less if there is one; empty when nothing of it is to be used.
[[nodiscard]] std::string ChoosePager();

class Pager {
  public:
    Pager() = default;
    Pager(const Pager&) = delete;
    Pager& operator=(const Pager&) = delete;
    // Waits until the person has read enough.
    ~Pager();

    // Starts this command of the shell; it shows on standard output what is written to Get(). False
    // with errno.
    [[nodiscard]] bool Start(const std::string& command);
    [[nodiscard]] bool IsRunning() const { return m_process > 0; }
    [[nodiscard]] int Get() const { return m_input.Get(); }

  private:
    UniqueFd m_input;
    pid_t m_process = 0;
};

// Where the shown records go: standard output, or a pager on a terminal. Collects, so that
// many records go out with one call.
class Output {
  public:
    explicit Output(const TraceOptions& options);

    // Whether what is shown may reach a terminal as it is: it must then be printable.
    [[nodiscard]] bool IsForTerminal() const { return m_isTerminal || m_hasColor; }
    [[nodiscard]] bool HasColor() const { return m_hasColor; }

    // What is appended goes out with one of the next calls of EndRecord, or of Flush.
    [[nodiscard]] std::string& Text() { return m_text; }
    void EndRecord() {
        if (m_text.size() >= kEnough) Send();
    }
    // Much at once, as it is; not for a terminal.
    void PutBytes(std::string_view bytes);
    void Flush();
    // The reader has gone away, or there was an error, which FinishOutput will report.
    [[nodiscard]] bool IsClosed() const;

  private:
    static constexpr size_t kEnough = size_t{1} << 17;

    void Send();

    std::string m_text;
    bool m_isTerminal;
    bool m_hasColor;
    std::string m_pagerCommand;  // until it is started
    Pager m_pager;
    bool m_isLeft = false;  // the pager
};
