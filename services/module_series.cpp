#include "services/module_series.h"

#include <dlfcn.h>
#include <fcntl.h>
#include <sys/mman.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstring>
#include <memory>
#include <mutex>
#include <new>
#include <string>
#include <string_view>
#include <vector>

#include "base/cancel_guard.h"
#include "base/mapped_region.h"
#include "base/never_destroyed.h"
#include "base/unique_fd.h"
#include "kemd/performance.h"
#include "services/series_text.h"

namespace {

using ModuleNameText = std::array<char, 64>;

// One series, or none. The value has a cache line of its own.
struct alignas(64) Slot {
    KemdSeries value;
    // Odd while the series is there; another for each series that was here.
    std::atomic<uint32_t> serial;
    uint32_t kind;
    alignas(64) ModuleNameText module;  // in the daemon's own region
    PackedSeries texts;
};
static_assert(sizeof(Slot) == 512);

constexpr size_t kSlots = 2048;  // the first is the head
constexpr size_t kRegionSize = kSlots * sizeof(Slot);

struct Head {
    std::atomic<uint32_t> end;  // no slot from here on was ever used: its memory is not there
};

// An id has the region's number, the slot's and the serial.
constexpr unsigned kSlotBits = 12;
constexpr unsigned kSerialBits = 32;
uint64_t MakeId(uint32_t region, size_t slot, uint32_t serial) {
    return uint64_t{region} << (kSlotBits + kSerialBits) | uint64_t{slot} << kSerialBits | serial;
}

class Region {
  public:
    [[nodiscard]] int MapPrivate() {
        void* const memory = mmap(nullptr, kRegionSize, PROT_READ | PROT_WRITE,
                                  MAP_SHARED | MAP_ANONYMOUS | MAP_NORESERVE, -1, 0);
        if (memory == MAP_FAILED) return ENOMEM;
        m_slots = static_cast<Slot*>(memory);
        return 0;
    }
    [[nodiscard]] int Map(int fd) {
        if (!m_mapping.MapShared(fd, kRegionSize)) return errno;
        m_slots = reinterpret_cast<Slot*>(m_mapping.Data());
        return 0;
    }
    [[nodiscard]] bool IsMapped() const { return m_slots != nullptr; }

    int Register(const ModuleNameText& module, uint32_t kind, const PackedSeries& texts,
                 KemdSeries** series);
    void Release(KemdSeries* series);
    void Forget(const char* module);
    template <typename Function>
    void ForEach(const Function& function) const;
    // As it is at one moment; false when there is no such series.
    [[nodiscard]] bool Copy(size_t slot, uint32_t serial, Slot& copy) const;

  private:
    // Another process may write it at any time.
    [[nodiscard]] size_t End() const {
        const size_t end =
            reinterpret_cast<const Head*>(m_slots)->end.load(std::memory_order_acquire);
        return std::min(std::max<size_t>(end, 1), kSlots);
    }
    void Free(Slot& slot);

    MappedRegion m_mapping;
    Slot* m_slots = nullptr;
};

bool IsUsed(uint32_t serial) {
    return (serial & 1) != 0;
}

int Region::Register(const ModuleNameText& module, uint32_t kind, const PackedSeries& texts,
                     KemdSeries** series) {
    const size_t end = End();
    size_t place = end;
    for (size_t i = 1; i < end; ++i) {
        const Slot& slot = m_slots[i];
        if (!IsUsed(slot.serial.load(std::memory_order_relaxed))) {
            place = std::min(place, i);
            continue;
        }
        if (slot.module != module || PackedName(slot.texts) != PackedName(texts)) continue;
        if (slot.kind != kind || PackedUnit(slot.texts) != PackedUnit(texts)) return EINVAL;
        if (PackedLabels(slot.texts) == PackedLabels(texts)) return EEXIST;
    }
    if (place == kSlots) return ENOSPC;
    Slot& slot = m_slots[place];
    slot.kind = kind;
    slot.module = module;
    slot.texts = texts;
    KemdSeriesSet(&slot.value, 0);
    slot.serial.fetch_add(1, std::memory_order_release);
    if (place == end) {
        reinterpret_cast<Head*>(m_slots)->end.store(static_cast<uint32_t>(end + 1),
                                                    std::memory_order_release);
    }
    *series = &slot.value;
    return 0;
}

void Region::Free(Slot& slot) {
    slot.serial.fetch_add(1, std::memory_order_release);
}

void Region::Release(KemdSeries* series) {
    static_assert(offsetof(Slot, value) == 0);
    auto& slot = *reinterpret_cast<Slot*>(series);
    if (IsUsed(slot.serial.load(std::memory_order_relaxed))) Free(slot);
}

void Region::Forget(const char* module) {
    for (size_t i = 1; i < End(); ++i) {
        Slot& slot = m_slots[i];
        if (IsUsed(slot.serial) && std::strcmp(slot.module.data(), module) == 0) Free(slot);
    }
}

template <typename Function>
void Region::ForEach(const Function& function) const {
    const size_t end = End();
    for (size_t i = 1; i < end; ++i) {
        const Slot& slot = m_slots[i];
        const uint32_t serial = slot.serial.load(std::memory_order_acquire);
        if (IsUsed(serial)) {
            function(i, serial, __atomic_load_n(&slot.value.bits, __ATOMIC_RELAXED));
        }
    }
}

bool Region::Copy(size_t slot, uint32_t serial, Slot& copy) const {
    if (slot == 0 || slot >= End() || !IsUsed(serial)) return false;
    Slot& here = m_slots[slot];
    if (here.serial.load(std::memory_order_acquire) != serial) return false;
    copy.kind = here.kind;
    copy.module = here.module;
    copy.texts = here.texts;
    // Written, so that no read above comes after it.
    return here.serial.fetch_add(0, std::memory_order_acq_rel) == serial;
}

// The region of a module's own process.
struct SharedRegion {
    std::string module;
    uint32_t number = 0;
    bool isDead = false;
    Region region;
};

struct AllSeries {
    std::mutex lock;
    Region own;
    std::vector<std::unique_ptr<SharedRegion>> shared;
    uint32_t lastNumber = 0;  // 0 is this process's own

    SharedRegion* Find(uint32_t number) {
        for (const auto& each : shared) {
            if (each->number == number) return each.get();
        }
        return nullptr;
    }
};
constinit NeverDestroyed<AllSeries> g_all;

// Of the library that the address is in.
int NameModule(const void* address, ModuleNameText& name) {
    Dl_info info{};
    if (dladdr(address, &info) == 0 || info.dli_fname == nullptr) return EINVAL;
    std::string_view file = info.dli_fname;
    file.remove_prefix(file.rfind('/') + 1);
    if (file.ends_with(".so")) file.remove_suffix(3);
    if (file.size() >= name.size() || !IsPrintable(file)) return EINVAL;
    name.fill('\0');
    file.copy(name.data(), file.size());
    return 0;
}

// A memfd that its other user cannot cut: that would kill who reads it.
UniqueFd MakeSharedFile() {
    UniqueFd file(KeepHigh(memfd_create("kemd-series", MFD_CLOEXEC | MFD_ALLOW_SEALING)));
    constexpr int kSeals = F_SEAL_SHRINK | F_SEAL_GROW | F_SEAL_SEAL;
    if (file.IsOpen() &&
        (ftruncate(file.Get(), kRegionSize) != 0 || fcntl(file.Get(), F_ADD_SEALS, kSeals) != 0)) {
        file.Reset();
    }
    return file;
}

}  // namespace

int AdoptSeriesRegion(int fd) {
    return g_all.object.own.Map(fd);
}

int KemdSeriesRegister(KemdSeries** series, const KemdSeriesDescription* description) {
    if (series == nullptr) return EINVAL;
    *series = nullptr;
    if (description == nullptr) return EINVAL;
    const CancelGuard guard;
    PackedSeries texts;     // NOLINT(cppcoreguidelines-pro-type-member-init)
    ModuleNameText module;  // NOLINT(cppcoreguidelines-pro-type-member-init)
    int error = PackSeries(*description, texts);
    if (error == 0) error = NameModule(__builtin_return_address(0), module);
    if (error != 0) return error;
    AllSeries& all = g_all.object;
    const std::lock_guard lock(all.lock);
    if (!all.own.IsMapped()) error = all.own.MapPrivate();
    return error != 0 ? error : all.own.Register(module, description->kind, texts, series);
}

void KemdSeriesRelease(KemdSeries* series) {
    if (series == nullptr) return;
    const CancelGuard guard;
    const std::lock_guard lock(g_all.object.lock);
    g_all.object.own.Release(series);
}

size_t KemdSeriesValues(KemdSeriesValue* values, size_t room) {
    const CancelGuard guard;
    AllSeries& all = g_all.object;
    const std::lock_guard lock(all.lock);
    size_t count = 0;
    const auto add = [&](const Region& region, uint32_t number, uint32_t flags) {
        region.ForEach([&](size_t slot, uint32_t serial, uint64_t bits) {
            if (count < room) values[count] = {MakeId(number, slot, serial), bits, flags, 0};
            ++count;
        });
    };
    if (all.own.IsMapped()) add(all.own, 0, 0);
    for (const auto& each : all.shared) {
        add(each->region, each->number, each->isDead ? KEMD_SERIES_DEAD : 0);
    }
    return count;
}

int KemdSeriesDescribe(uint64_t id, KemdSeriesInfo* info) {
    if (info == nullptr || info->size < sizeof *info) return EINVAL;
    const CancelGuard guard;
    AllSeries& all = g_all.object;
    const std::lock_guard lock(all.lock);
    const auto number = static_cast<uint32_t>(id >> (kSlotBits + kSerialBits));
    const SharedRegion* const shared = number != 0 ? all.Find(number) : nullptr;
    if (number != 0 && shared == nullptr) return ENOENT;
    const Region& region = shared != nullptr ? shared->region : all.own;
    const size_t slot = (id >> kSerialBits) & ((1U << kSlotBits) - 1);
    Slot copy{};
    if (!region.IsMapped() || !region.Copy(slot, static_cast<uint32_t>(id), copy)) return ENOENT;
    const std::string_view module =
        shared != nullptr ? std::string_view(shared->module) : copy.module.data();
    return UnpackSeries(copy.texts, copy.kind, module, *info) ? 0 : ENOENT;
}

int KemdSeriesShare(const char* module) try {
    if (module == nullptr || std::strlen(module) >= sizeof(ModuleNameText)) return -EINVAL;
    const CancelGuard guard;
    UniqueFd file = MakeSharedFile();
    if (!file.IsOpen()) return -errno;
    auto fresh = std::make_unique<SharedRegion>();
    fresh->module = module;
    if (const int error = fresh->region.Map(file.Get())) return -error;
    AllSeries& all = g_all.object;
    const std::lock_guard lock(all.lock);
    std::erase_if(all.shared, [&](const auto& each) { return each->module == module; });
    all.shared.reserve(all.shared.size() + 1);
    // An id holds 20 bits of it.
    all.lastNumber = all.lastNumber % 0xFFFFF + 1;
    fresh->number = all.lastNumber;
    all.shared.push_back(std::move(fresh));
    return file.Release();
} catch (const std::bad_alloc&) {
    return -ENOMEM;
}

void KemdSeriesMarkDead(const char* module) {
    if (module == nullptr) return;
    const CancelGuard guard;
    const std::lock_guard lock(g_all.object.lock);
    for (const auto& each : g_all.object.shared) {
        if (each->module == module) each->isDead = true;
    }
}

void KemdSeriesForget(const char* module) {
    if (module == nullptr) return;
    const CancelGuard guard;
    AllSeries& all = g_all.object;
    const std::lock_guard lock(all.lock);
    std::erase_if(all.shared, [&](const auto& each) { return each->module == module; });
    if (all.own.IsMapped()) all.own.Forget(module);
}
