// kemd/services.h. The opaque handles are the C++ objects under other names.
#include <cerrno>
#include <climits>
#include <cstring>
#include <exception>
#include <memory>
#include <new>
#include <string>
#include <vector>

#include "kemd/event.h"
#include "kemd/exit_event.h"
#include "kemd/process_status.h"
#include "kemd/profile.h"
#include "kemd/registry.h"
#include "kemd/semaphore.h"
#include "kemd/services.h"
#include "services/registry/store.h"

namespace {

EventHandle& Object(KemdEvent* event) {
    return *reinterpret_cast<EventHandle*>(event);
}

SemaphoreHandle& Object(KemdSemaphore* semaphore) {
    return *reinterpret_cast<SemaphoreHandle*>(semaphore);
}

CRegistry& Object(KemdRegistryKey* key) {
    return *reinterpret_cast<CRegistry*>(key);
}

// What can only be wrong with the handle.
int ErrorUnless(bool isDone) {
    return isDone ? 0 : EINVAL;
}

int RegistryError(int32_t result) {
    switch (result) {
        case 0:
            return 0;
        case kRegistryAbsent:
            return ENOENT;
        default:
            return EINVAL;  // the key was deleted since, among others
    }
}

// Stores bytes whole or not at all. `size`: the room there is, then the room that it takes.
int Store(const void* bytes, size_t needed, void* out, size_t* size) {
    if (size == nullptr) return EINVAL;
    const size_t room = *size;
    *size = needed;
    if (needed > room || (out == nullptr && needed > 0)) return ERANGE;
    if (needed > 0) std::memcpy(out, bytes, needed);
    return 0;
}

int StoreText(const std::string& text, char* out, size_t* size) {
    return Store(text.c_str(), text.size() + 1, out, size);
}

// A name of any length: `get` cuts what does not fit the buffer that it is given.
template <typename Get>
int StoreName(char* out, size_t* size, const Get& get) try {
    std::string name(64, '\0');
    for (;;) {
        auto length = static_cast<uint32_t>(name.size());
        const int error = RegistryError(get(name.data(), &length));
        if (error != 0) return error;
        if (length + 1 < name.size()) {
            name.resize(length);
            return StoreText(name, out, size);
        }
        name.resize(name.size() * 2);
    }
} catch (const std::exception&) {
    return ENOMEM;
}

// What keeps a sound change from being made.
int ChangeError(int otherwise) {
    return TheRegistryStore().IsReadOnly() ? EROFS : otherwise;
}

int WriteValue(KemdRegistryKey* key, const char* name, const void* data, size_t size,
               RegistryType type) {
    if (key == nullptr || name == nullptr || size > UINT32_MAX) return EINVAL;
    const bool isDone = Object(key).SetValue(name, data, static_cast<uint32_t>(size), type);
    return isDone ? 0 : ChangeError(EINVAL);
}

}  // namespace

KemdEvent* KemdEventOpen(const char* name, int isManual, int isSignalled) {
    std::unique_ptr<EventHandle> event(new (std::nothrow) EventHandle);
    if (event == nullptr) return nullptr;
    CreateEvent(*event, isSignalled != 0, isManual != 0, name);
    if (event->event == nullptr) return nullptr;
    return reinterpret_cast<KemdEvent*>(event.release());
}

void KemdEventClose(KemdEvent* event) {
    if (event != nullptr && event != KemdExitEvent()) delete &Object(event);
}

int KemdEventSet(KemdEvent* event) {
    return ErrorUnless(event != nullptr && SetEvent(Object(event)) == 1);
}

int KemdEventReset(KemdEvent* event) {
    return ErrorUnless(event != nullptr && ResetEvent(Object(event)) == 1);
}

int KemdEventPulse(KemdEvent* event) {
    return ErrorUnless(event != nullptr && PulseEvent(Object(event)) == 1);
}

int KemdEventIsSet(KemdEvent* event) {
    return event != nullptr ? CheckEvent(Object(event)) : 0;
}

int KemdEventWait(KemdEvent* event, uint32_t timeoutMs) {
    const int result = event != nullptr ? WaitForEvent(Object(event), timeoutMs) : kWaitFailed;
    return result == kWaitTimedOut ? ETIMEDOUT : ErrorUnless(result == kWaitSignaled);
}

KemdEvent* KemdExitEvent() {
    return reinterpret_cast<KemdEvent*>(&ExitEvent());
}

KemdSemaphore* KemdSemaphoreOpen(uint32_t count) {
    std::unique_ptr<SemaphoreHandle> semaphore(new (std::nothrow) SemaphoreHandle);
    if (semaphore == nullptr) return nullptr;
    if (CreateSemaphore(*semaphore, count, count, nullptr) != 1) return nullptr;
    return reinterpret_cast<KemdSemaphore*>(semaphore.release());
}

void KemdSemaphoreClose(KemdSemaphore* semaphore) {
    if (semaphore == nullptr) return;
    (void)CloseSemaphore(Object(semaphore));
    delete &Object(semaphore);
}

int KemdSemaphoreTake(KemdSemaphore* semaphore) {
    if (semaphore == nullptr) return EINVAL;
    // Signal handlers of the module interrupt it.
    while (WaitForSemaphore(Object(semaphore), -1) != 0) {
        if (errno != EINTR) return errno;
    }
    return 0;
}

int KemdSemaphoreTryTake(KemdSemaphore* semaphore) {
    if (semaphore == nullptr) return EINVAL;
    return WaitForSemaphore(Object(semaphore), 0) == 0 ? 0 : EAGAIN;
}

int KemdSemaphoreGive(KemdSemaphore* semaphore, uint32_t count) {
    return ErrorUnless(semaphore != nullptr && ReleaseSemaphore(Object(semaphore), count));
}

size_t KemdProfileRead(const char* file, const char* section, const char* key, const char* fallback,
                       char* out, size_t size) {
    const auto room = static_cast<uint32_t>(size < UINT32_MAX ? size : UINT32_MAX);
    return GetPrivateProfileString(section, key, fallback, out, room, file);
}

int KemdProfileWrite(const char* file, const char* section, const char* key, const char* value) {
    return WritePrivateProfileString(section, key, value, file) ? 0 : EIO;
}

int KemdRegistryOpen(KemdRegistryKey** key, const char* path, int make) try {
    if (key == nullptr || path == nullptr) return EINVAL;
    *key = nullptr;
    std::unique_ptr<CRegistry> cursor(new (std::nothrow) CRegistry);
    if (cursor == nullptr) return ENOMEM;
    if (cursor->Open(path) != 0) {
        if (make == 0) return ENOENT;
        const char* const rest = path + std::strcspn(path, "\\/");
        const std::string root(path, rest);
        const bool isMade = cursor->Open(root.c_str()) == 0 && *rest != '\0' &&
                            cursor->CreateKey(nullptr, rest + 1) == 0;
        if (!isMade) return ChangeError(EINVAL);
    }
    *key = reinterpret_cast<KemdRegistryKey*>(cursor.release());
    return 0;
} catch (const std::exception&) {
    return ENOMEM;
}

void KemdRegistryClose(KemdRegistryKey* key) {
    if (key != nullptr) delete &Object(key);
}

int KemdRegistryImport(const char* file) try {
    if (file == nullptr) return EINVAL;
    const CRegistry loads;
    return TheRegistryStore().Import(file);
} catch (const std::exception&) {
    return ENOMEM;
}

int KemdRegistrySave() {
    errno = 0;
    if (CRegistry::SaveTree()) return 0;
    return errno != 0 ? errno : EIO;
}

int KemdRegistryReadText(KemdRegistryKey* key, const char* name, char* out, size_t* size) {
    if (key == nullptr) return EINVAL;
    std::string text;
    const int error = RegistryError(Object(key).QueryValue(&text, name));
    return error == 0 ? StoreText(text, out, size) : error;
}

int KemdRegistryReadBinary(KemdRegistryKey* key, const char* name, void* out, size_t* size) {
    if (key == nullptr) return EINVAL;
    std::vector<uint8_t> bytes;
    const int error = RegistryError(Object(key).QueryValue(&bytes, name));
    return error == 0 ? Store(bytes.data(), bytes.size(), out, size) : error;
}

int KemdRegistryReadNumber(KemdRegistryKey* key, const char* name, int32_t* out) {
    return key != nullptr ? RegistryError(Object(key).QueryValue(out, name)) : EINVAL;
}

int KemdRegistryWriteText(KemdRegistryKey* key, const char* name, const char* text) {
    if (text == nullptr) return EINVAL;
    return WriteValue(key, name, text, std::strlen(text), kRegistryString);
}

int KemdRegistryWriteBinary(KemdRegistryKey* key, const char* name, const void* data, size_t size) {
    return WriteValue(key, name, data, size, kRegistryBinary);
}

int KemdRegistryWriteNumber(KemdRegistryKey* key, const char* name, int32_t number) {
    return WriteValue(key, name, &number, sizeof number, kRegistryNumber);
}

int KemdRegistryDelete(KemdRegistryKey* key, const char* name) {
    if (key == nullptr || name == nullptr) return EINVAL;
    return ChangeError(RegistryError(Object(key).DeleteValue(name)));
}

int KemdRegistrySubkeyName(KemdRegistryKey* key, uint32_t index, char* out, size_t* size) {
    if (key == nullptr) return EINVAL;
    return StoreName(out, size, [&](char* name, uint32_t* length) {
        return Object(key).EnumKey(name, length, index, nullptr);
    });
}

int KemdRegistryValueName(KemdRegistryKey* key, uint32_t index, char* out, size_t* size,
                          uint32_t* type) {
    if (key == nullptr) return EINVAL;
    return StoreName(out, size, [&](char* name, uint32_t* length) {
        uint32_t none = 0;
        const int32_t result =
            Object(key).EnumValue(name, length, index, kRegistryAnyValue, nullptr, &none);
        if (result != 0) return result;
        std::string text;
        (void)Object(key).QueryValue(&text, name);
        const uint32_t found = Object(key).ValueType();
        // One past the end the cursor has an entry without a name and a type.
        if (*length == 0 && (index > 0 || found == 0)) return kRegistryAbsent;
        if (type != nullptr) *type = found;
        return 0;
    });
}

int KemdProcessMemory(pid_t pid, struct KemdMemory* memory, size_t size) {
    if (memory == nullptr) return EINVAL;
    struct KemdMemory all = {};
    ReadProcStatusValue(pid, all.size, "VmSize:", 0);
    ReadProcStatusValue(pid, all.peak, "VmPeak:", 0);
    ReadProcStatusValue(pid, all.swap, "VmSwap:", 0);
    ReadProcStatusValue(pid, all.resident, "VmRSS:", 0);
    std::memset(memory, 0, size);
    std::memcpy(memory, &all, size < sizeof all ? size : sizeof all);
    return all.size != 0 ? 0 : ESRCH;
}

pid_t KemdProcessFind(const char* name) {
    pid_t pid = -1;
    (void)FindProcessByName(pid, name);
    return pid;
}

int KemdProcessProgram(pid_t pid, char* out, size_t* size) {
    std::string path;
    return GetProcessExePath(path, pid) ? StoreText(path, out, size) : ESRCH;
}
