// Tells when a process stores into a place of a file that it has mapped. The system reports writes,
// never stores; but the processor stops at an address, which is how a debugger waits for a
// variable. Nothing of the process is changed, and it is not slowed down before it comes there.
// Needs root's rights and a processor whose breakpoints may be used: some containers and virtual
// machines refuse.
#pragma once

#include <cstdint>
#include <list>

#include "services/base/mapped_region.h"
#include "services/base/unique_fd.h"
#include "trace_reader/trace_file.h"

// The process that has this file mapped for writing: `likely`, or another one, for in a container
// of its own it has another number. 0: there is none, or it cannot be seen.
[[nodiscard]] int FindMapper(const TraceFile& file, int likely);

class StoreWatch {
  public:
    // Watches eight bytes at or behind `offset`, on all processors, instead of those before. False
    // when that cannot be done; it then watches nothing.
    [[nodiscard]] bool Begin(int process, const TraceFile& file, uint64_t offset);
    void End() { m_events.clear(); }

    // One for each processor: readable (POLLIN) when the store has been made.
    struct Event {
        UniqueFd fd;
        MappedRegion buffer;  // the system wakes nobody without one
    };
    [[nodiscard]] const std::list<Event>& Events() const { return m_events; }

  private:
    [[nodiscard]] bool Open(uint64_t address);

    std::list<Event> m_events;
};
