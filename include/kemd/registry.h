// The suite's registry: a tree of keys with values in memory, kept in /etc/orvmon/registry. The
// whole process shares one tree. A CRegistry is a cursor on it and holds one open key.
//
// The first CRegistry loads the tree; every change marks it, and the end of any CRegistry object
// writes a marked tree back. When the file exists but cannot be read, nothing is loaded or saved,
// and the next CRegistry tries again. Any number of threads may work on the tree, each with
// CRegistry objects of its own. Nothing throws; a thread that is cancelled while the tree is loaded
// or saved is cancelled after it. Other processes keep trees of their own: the last one to save
// wins.
//
// Paths separate their components by backslashes or, when none is left, slashes. Names are compared
// byte by byte. Within a key a value and a subkey cannot have the same name. What the file cannot
// hold (line feeds, lines of more than 1,022 characters, names with "=", names of keys with "]",
// names of values that begin with "[" when a "]" follows) is stored all the same and misread when
// the file is loaded.
//
// Results are 0 or one of the numbers below, unless stated otherwise. A key that was deleted or
// reloaded while a CRegistry had it open counts as no open key.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include "kemd/api.h"
#include "kemd/cxx_library.h"

inline constexpr int32_t kRegistryFailed = -1;
inline constexpr int32_t kRegistryInvalid = 22;  // no key open, or a required pointer is missing
inline constexpr int32_t kRegistryTooLong = 34;  // the result does not fit the caller's buffer
inline constexpr int32_t kRegistryAbsent = 61;   // no such value, or one of another type

enum RegistryType : uint32_t {
    kRegistryString = 1,
    kRegistryExpandString = 2,  // text with %NAME% for environment variables
    kRegistryBinary = 3,
    kRegistryNumber = 4,  // signed, 32 bits
    kRegistrySubkey = 666,
    kRegistryAnyValue = 999,  // only as the filter of EnumValue
};

// The root keys of the tree, for use as handles.
enum RegistryRoot : uint32_t {
    HKEY_LOCAL_MACHINE,
    HKEY_CURRENT_USER,
    HKEY_USERS,
    HKEY_CLASSES_ROOT,
    HKEY_CURRENT_CONFIG,
};

class CRegistryNode;
class LockedNode;
class RegistryEntry;

// A counted reference to one key, or to none.
class KEMD_API RegistryKey {
  public:
    constexpr RegistryKey() = default;
    // Adds a reference of its own.
    explicit RegistryKey(CRegistryNode* node);
    RegistryKey(const RegistryKey& source) : RegistryKey(source.m_node) {}
    RegistryKey(RegistryKey&& source) noexcept : m_node(source.m_node) { source.m_node = nullptr; }
    RegistryKey& operator=(const RegistryKey& source) { return *this = RegistryKey(source); }
    RegistryKey& operator=(RegistryKey&& source) noexcept {
        CRegistryNode* const node = m_node;
        m_node = source.m_node;
        source.m_node = node;
        return *this;
    }
    ~RegistryKey() {
        if (m_node != nullptr) Release();
    }

    explicit operator bool() const { return m_node != nullptr; }
    [[nodiscard]] CRegistryNode* Get() const { return m_node; }
    CRegistryNode* operator->() const { return m_node; }
    CRegistryNode& operator*() const { return *m_node; }

  private:
    void Release();

    CRegistryNode* m_node = nullptr;
};

// The key that an operation starts from: null, a root key or an open key.
class KEMD_API RegistryHandle {
  public:
    // NOLINTBEGIN(google-explicit-constructor): callers write what they have
    RegistryHandle(std::nullptr_t) : m_kind(kNull) {}
    RegistryHandle(RegistryRoot root) : m_kind(kRoot), m_root(root) {}
    RegistryHandle(RegistryKey key) : m_kind(kKey), m_key(static_cast<RegistryKey&&>(key)) {}
    // NOLINTEND(google-explicit-constructor)

    [[nodiscard]] bool IsNull() const { return m_kind == kNull; }
    // Null for a null handle, and for a root key that the loaded file does not have.
    [[nodiscard]] RegistryKey Key() const;

  private:
    enum Kind { kNull, kRoot, kKey } m_kind;
    RegistryRoot m_root = HKEY_LOCAL_MACHINE;
    RegistryKey m_key;
};

class KEMD_API CRegistry {
  public:
    // No key is open.
    CRegistry();
    explicit CRegistry(RegistryRoot root);
    CRegistry(const char* path, const RegistryHandle& hKey);
    // Opens the same key; nothing else is copied.
    CRegistry(const CRegistry& source);
    CRegistry& operator=(const CRegistry& source);
    ~CRegistry();

    // Closes the key and resets the object; loads the tree if no load has succeeded yet.
    void InitClass();
    // Loads the tree, with `forceSetup` also when it is loaded: keys below the root keys that the
    // file holds are replaced, and unsaved changes in them lost.
    static void SetupTree(bool forceSetup);
    // Writes a changed tree; on return it is on disk, even if another thread was writing it. False
    // with errno when that failed or the file had not been read whole; the save is not repeated
    // before the next change. The files are then unchanged, unless only syncing their directory
    // failed.
    static bool SaveTree();

    // Opens a key; with null from the root of the tree. 0 or -1, then no key is open.
    int32_t Open(const char* path, const RegistryHandle& hKey = nullptr);
    // Opens the key whose path stands in the value `name` of the key `path`. 0 or -1.
    int32_t OpenPointer(const char* path, const char* name, const RegistryHandle& hKey);
    // The same with the suite's identifier key below the handle.
    int32_t OpenPointer(const char* name, const RegistryHandle& hKey);
    // Opens a key and creates the missing components of its path. 0 or -1.
    int32_t CreateKey(const RegistryHandle& node, const char* path);
    // Deletes a direct subkey of the open key with all below it.
    int32_t DeleteKey(const char* name);
    // Deletes a value, or a subkey with all below it, of the open key. Also 0 when there is none.
    int32_t DeleteValue(const char* name);

    // Here and below, null stands for the open key. `data` has `size` bytes: text without its NUL,
    // or an int32_t; it may be null when `size` is 0. True when it is stored, and for a null name,
    // which stores nothing.
    bool SetValue(const char* name, const void* data, uint32_t size, uint32_t type,
                  const RegistryHandle& node = nullptr);
    int32_t SetValue(const char* name, int32_t number);
    int32_t SetValue(const char* name, const char* text);

    int32_t QueryValue(int32_t* out, const char* name, const RegistryHandle& node = nullptr);
    int32_t QueryValue(std::string* out, const char* name, const RegistryHandle& node = nullptr);
    int32_t QueryValue(std::vector<uint8_t>* out, const char* name,
                       const RegistryHandle& node = nullptr);
    // Text that does not fit with its NUL is cut to `size` bytes without one: 34.
    int32_t QueryValue(char* buffer, const char* name, uint32_t size,
                       const RegistryHandle& node = nullptr);
    // `count`: in, the buffer's size in bytes; out, the text's length without NUL. Text that does
    // not fit is cut without NUL: 34. With a null buffer, `count` gets the bytes that are needed.
    int32_t QueryValue(char* buffer, const char* name, uint32_t* count,
                       const RegistryHandle& node = nullptr);

    // The index-th subkey of the open key, from 0, in the order of the names; a name that does not
    // fit is cut. `length`: in, the buffer's size; out, the name's length. `reserved` is set to 0.
    int32_t EnumKey(char* buffer, uint32_t size, uint32_t index);
    int32_t EnumKey(char* buffer, uint32_t* length, uint32_t index, uint32_t* reserved);
    // The index-th entry of the open key of type `filter`. Its data come as from QueryValue; binary
    // ones do not and have size 0. With the filters 0 and kRegistryAnyValue there is one entry more
    // after the last: an empty name, size 0.
    int32_t EnumValue(char* name, uint32_t* nameLength, uint32_t index, uint32_t filter, void* data,
                      uint32_t* dataSize);
    int32_t GetSubKeyCount(uint32_t* count);

    // Reads text from the suite's identifier key below HKEY_LOCAL_MACHINE.
    static bool ReadIdentifierValue(std::string& out, const char* name);

    // The result of the last Open or OpenPointer.
    [[nodiscard]] int32_t Status() const { return m_status; }
    // Of the value last read, as stored: the size of text counts its NUL.
    [[nodiscard]] uint32_t ValueSize() const { return m_valueSize; }
    [[nodiscard]] uint32_t ValueType() const { return m_valueType; }
    // Whether %NAME% is replaced when a value of type kRegistryExpandString is read. On at first.
    void SetExpand(bool expand) { m_expand = expand; }
    [[nodiscard]] const RegistryKey& Key() const { return m_key; }
    // As last opened, with slashes.
    [[nodiscard]] const std::string& Path() const { return m_path; }

  private:
    // Where the last enumeration stopped, so that the next one need not count from the start.
    struct EnumState {
        uint32_t count;
        uint32_t filter;
        uint32_t next;
        uint32_t generation;  // of the key's entries
    };
    [[nodiscard]] RegistryKey KeyOf(const RegistryHandle& handle) const;
    void SetKey(RegistryKey key);
    int32_t OpenFrom(RegistryKey start, const char* path);
    int32_t OpenPointerFrom(const RegistryKey& start, const char* path, const char* name);
    int32_t Read(const RegistryKey& key, const char* name);
    void ReadEntry(const RegistryEntry& entry);
    int32_t CopyText(char* buffer, uint32_t* count) const;
    int32_t ReadText(const char* name, const RegistryHandle& node);
    int32_t OpenIdentifierKey();
    static const RegistryEntry* Seek(const LockedNode& locked, EnumState& state, uint32_t index,
                                     uint32_t filter);
    int32_t Remove(const char* name, bool onlySubkey);

    int32_t m_status = 0;
    uint32_t m_valueSize = 0;
    uint32_t m_valueType = 0;
    bool m_expand = true;
    EnumState m_enumKeys{};
    EnumState m_enumValues{};
    RegistryKey m_key;
    std::string m_value;  // the value last read
    std::string m_path;
};

KEMD_CLASS_SIZE(RegistryKey, 8);
KEMD_CLASS_SIZE(RegistryHandle, 16);
KEMD_CLASS_SIZE(CRegistry, 120);
