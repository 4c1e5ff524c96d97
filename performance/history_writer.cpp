#include "performance/history_writer.h"

#include <fcntl.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstring>
#include <filesystem>

#include "base/file_io.h"
#include "base/unique_fd.h"
#include "performance/history_format.h"

struct HistoryWriter::File {
    UniqueFd fd;
    char* bytes = nullptr;
    uint64_t size = 0;
    uint64_t end = kFirstRecord;
    uint64_t generation = UINT64_MAX;
    HistorySettings settings;
    std::string findings;
    SeriesTable known;

    ~File() {
        if (bytes != nullptr) munmap(bytes, size);
    }
    void Commit() {
        reinterpret_cast<std::atomic<uint64_t>*>(bytes + kCommitted)
            ->store(end, std::memory_order_release);
    }
    void Put(const void* data, size_t count) {
        std::memcpy(bytes + end, data, count);
        end += count;
    }
    template <typename Number>
    void Put(Number number) {
        Put(&number, sizeof number);
    }
    void PutText(const std::string& text) {
        Put(static_cast<uint32_t>(text.size()));
        Put(text.data(), text.size());
    }
    void Begin() {
        Put(uint32_t{kRun});
        Put(settings.periodNs);
        PutText(settings.host);
        PutText(settings.bootId);
        generation = UINT64_MAX;
    }
    bool Fits(uint64_t count) {
        if (end + count <= size) return true;
        end = kFirstRecord;
        Commit();
        Begin();
        return end + count <= size;
    }
    void PutSeries(const SeriesTable& table) {
        for (SeriesTable::Index i = 0; i < table.Size(); ++i) {
            if (!table.IsUsed(i)) continue;
            const SeriesInfo& info = table.Info(i);
            Put(uint32_t{kSeries});
            Put(i);
            Put(static_cast<uint8_t>(info.kind));
            Put(static_cast<uint8_t>(info.isReal));
            Put(info.multiply);
            Put(info.divide);
            for (const auto* text : {&info.name, &info.labels, &info.unit, &info.help}) {
                PutText(*text);
            }
        }
        generation = table.Generation();
    }
};

std::unique_ptr<HistoryWriter> HistoryWriter::Open(const HistorySettings& settings,
                                                   std::string& error) {
    auto file = std::make_unique<File>();
    std::error_code ignored;
    std::filesystem::create_directories(std::filesystem::path(settings.path).parent_path(),
                                        ignored);
    file->fd = OpenRegularFile(settings.path.c_str(), O_RDWR | O_CREAT, 0644);
    int failed = file->fd.IsOpen() ? 0 : errno;
    if (failed == 0) {
        failed = posix_fallocate(file->fd.Get(), 0, static_cast<off_t>(settings.size));
    }
    if (failed == 0 && ftruncate(file->fd.Get(), static_cast<off_t>(settings.size)) != 0) {
        failed = errno;
    }
    if (failed == 0) {
        void* const bytes =
            mmap(nullptr, settings.size, PROT_READ | PROT_WRITE, MAP_SHARED, file->fd.Get(), 0);
        failed = bytes == MAP_FAILED ? errno : 0;
        if (failed == 0) file->bytes = static_cast<char*>(bytes);
    }
    if (failed != 0) {
        error = settings.path + ": " + std::strerror(failed);
        return nullptr;
    }
    file->size = settings.size;
    file->settings = settings;
    uint64_t end = 0;
    std::memcpy(&end, file->bytes + kCommitted, sizeof end);
    if (std::memcmp(file->bytes, kMagic, sizeof kMagic) == 0 && end <= file->size) file->end = end;
    std::memcpy(file->bytes, kMagic, sizeof kMagic);
    if (file->Fits(4096)) file->Begin();
    file->Commit();
    return std::unique_ptr<HistoryWriter>(new HistoryWriter(std::move(file)));
}

HistoryWriter::HistoryWriter(std::unique_ptr<File> file) : m_file(std::move(file)) {}
HistoryWriter::~HistoryWriter() = default;
const std::string& HistoryWriter::Findings() const {
    return m_file->findings;
}

void HistoryWriter::Append(const SampleTime& time, const SeriesTable& table) {
    constexpr size_t kMostText = 1024;
    if (!m_file->Fits(table.Size() * (kMostText + 12) + 64)) return;
    if (m_file->generation != table.Generation()) m_file->PutSeries(table);
    m_file->Put(uint32_t{kSample});
    m_file->Put(time.wall);
    m_file->Put(time.monotonic);
    uint32_t count = 0;
    for (SeriesTable::Index i = 0; i < table.Size(); ++i) count += table.HasValue(i) ? 1 : 0;
    m_file->Put(count);
    for (SeriesTable::Index i = 0; i < table.Size(); ++i) {
        if (!table.HasValue(i)) continue;
        m_file->Put(i);
        m_file->Put(table.Value(i));
    }
    m_file->Commit();
}

void HistoryWriter::Mark(const ::Mark& mark) {
    if (!m_file->Fits(mark.text.size() + 64)) return;
    m_file->Put(uint32_t{kMark});
    m_file->Put(mark.time.wall);
    m_file->Put(mark.time.monotonic);
    m_file->Put(static_cast<uint8_t>(mark.kind));
    m_file->Put(mark.value);
    m_file->PutText(mark.text);
    m_file->Commit();
}

int HistoryWriter::Sync() {
    return fdatasync(m_file->fd.Get()) == 0 ? 0 : errno;
}
