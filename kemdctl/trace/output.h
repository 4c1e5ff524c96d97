// Where the shown records go: standard output, or a pager in front of a terminal. Collects, so that
// many records go out with one call.
#pragma once

#include <string>
#include <string_view>

#include "kemdctl/trace/options.h"
#include "kemdctl/trace/pager.h"

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
    // Nobody reads any more, or there was an error, which FinishOutput will tell.
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
