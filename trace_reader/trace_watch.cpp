#include "trace_reader/trace_watch.h"

#include <poll.h>
#include <sys/inotify.h>
#include <sys/stat.h>
#include <unistd.h>

#include <array>
#include <ctime>
#include <filesystem>
#include <vector>

#include "trace_reader/trailer.h"

namespace {

// Half of what a record may take to be shown.
constexpr int kLookMilliseconds = 5;

bool IsUnpackedRing(const SourceFacts& facts) {
    return facts.kind == FileKind::kRingFile && !facts.isCompressed;
}

// Its writer may be about to map it.
bool IsYoung(const std::string& path) {
    constexpr time_t kYoung = 10;
    struct stat status = {};
    return stat(path.c_str(), &status) == 0 && time(nullptr) - status.st_ctime < kYoung;
}

}  // namespace

TraceWatch::TraceWatch() : m_fd(inotify_init1(IN_CLOEXEC | IN_NONBLOCK)) {}

// Also where the name leads to: a link is not what is written.
bool TraceWatch::Add(const std::string& path) {
    std::error_code error;
    const std::filesystem::path file = std::filesystem::weakly_canonical(path, error);
    return Watch(path) && (error || Watch(file));
}

bool TraceWatch::Watch(const std::filesystem::path& file) {
    const std::filesystem::path directory = file.parent_path();
    return inotify_add_watch(m_fd.Get(), directory.empty() ? "." : directory.c_str(),
                             IN_CREATE | IN_MODIFY | IN_MOVED_TO | IN_DELETE) >= 0;
}

void TraceWatch::Arm(const TraceMerge& merge) {
    m_isTimed = false;
    for (const auto& source : merge.Sources()) {
        const bool isRing = IsUnpackedRing(source->Facts());
        if (!isRing) m_stores.erase(source.get());
        if (isRing && !ArmRing(*source)) m_isTimed = true;
    }
}

// True when the next record will be seen, or there is nobody who could write one: a daemon that
// starts makes the file anew, which the system reports.
bool TraceWatch::ArmRing(const TraceSource& ring) {
    const int writer = FindMapper(ring.File(), ring.Facts().writer);
    if (writer == 0) {
        m_stores.erase(&ring);
        return geteuid() == 0 && !IsYoung(ring.Path());
    }
    if (!m_stores[&ring].Begin(writer, ring.File(), ring.NewestEnd())) return false;
    // The next record begins in the trailer's place. Where no trailer stands, that has happened
    // already and the record is not whole yet.
    const std::string_view trailer = kTrailerLine.substr(1);
    return ring.File().Read(ring.NewestEnd(), trailer.size()) == trailer;
}

bool TraceWatch::Wait(int output) {
    std::vector<pollfd> events = {{m_fd.Get(), POLLIN, 0}, {output, 0, 0}};
    for (const auto& [ring, store] : m_stores) {
        for (const StoreWatch::Event& event : store.Events()) {
            events.push_back({event.fd.Get(), POLLIN, 0});
        }
    }
    const int count = poll(events.data(), events.size(), m_isTimed ? kLookMilliseconds : -1);
    if (count > 0 && (events[1].revents & (POLLERR | POLLNVAL)) != 0) return false;
    // What exactly happened does not matter.
    std::array<char, 4096> names{};
    while (count > 0 && read(m_fd.Get(), names.data(), names.size()) > 0) continue;
    return true;
}
