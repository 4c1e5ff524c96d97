// The history's file as the writer has it: locked against a second writer, all its blocks reserved,
// and mapped. One thread uses an object.
#pragma once

#include <memory>
#include <span>
#include <string>

#include "base/mapped_region.h"
#include "base/unique_fd.h"
#include "performance/history_format.h"
#include "performance/history_settings.h"

class HistoryFile {
  public:
    // Makes it, or opens what is there, whatever size that has. What is no history is renamed to
    // PATH.bad; findings says so. Null with the reason.
    static std::unique_ptr<HistoryFile> Open(const HistorySettings& settings, std::string& findings,
                                             std::string& error);
    // An empty one of the wanted size beside it, PATH.new. Null with a finding.
    static std::unique_ptr<HistoryFile> MakeOther(const HistorySettings& settings,
                                                  std::string& findings);
    // Brings it to the disk and puts it in the place of `path`. An errno number.
    int Replace(const std::string& path);

    [[nodiscard]] int Descriptor() const { return m_fd.Get(); }
    [[nodiscard]] const FileHead& Head() const { return m_head; }
    [[nodiscard]] std::span<uint8_t> Bytes(uint32_t area) const;

  private:
    enum class State { kHistory, kEmpty, kOther };

    int Lock();
    State ReadHead(std::string& error);
    // The state of what is there; sound, reserved and mapped unless there is an error.
    State OpenOnce(const HistorySettings& settings, std::string& error);
    // Under another name: the reason goes to the findings, or says why it could not be.
    bool SetAside(std::string& wrong, std::string& findings);
    int Reserve(const std::string& host, uint64_t size);
    int Map();

    std::string m_path;
    UniqueFd m_fd;
    MappedRegion m_mapping;
    FileHead m_head;
};
