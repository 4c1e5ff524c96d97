// Private profile files: plain text of sections, "[name]" on a line of its own, and entries, "key =
// value" on a line each; a semicolon begins a comment. Nothing is kept in memory: every call reads
// the file again.
//
// Any thread may call the functions. Within the process a write excludes every other access; other
// processes are not excluded. A CProfileFile belongs to one thread at a time. Nothing throws; a
// thread that is cancelled inside a call ends after it. Anything but a regular file counts as a
// file that cannot be opened.
#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "kemd/api.h"
#include "kemd/cxx_library.h"

// Reads one value (`section` and `key` given), the names of a section's keys (`key` null) or the
// names of all sections (`section` null) into `out`, which holds `size` bytes. Each
// name ends in a NUL, the last one in two.
//
// The result is the number of characters in `out` without the last NUL. A value that was cut gives
// size - 1, a list that was cut size - 2. A value that is missing or empty gives `defaultText`
// (null: 0 characters), no name at all gives 0. With a null `out` or a size of 0 nothing is stored.
KEMD_API uint32_t GetPrivateProfileString(const char* section, const char* key,
                                          const char* defaultText, char* out, uint32_t size,
                                          const char* fileName);
// The same, but a null file name leaves `out` alone.
KEMD_API uint32_t GetPrivateProfileStringChecked(const char* section, const char* key,
                                                 const char* defaultText, char* out, uint32_t size,
                                                 const char* fileName);

// Sets the value of a key, and creates the file (mode 0644), the section and the entry if they are
// missing. A null `value` deletes the entry, a null `key` the whole section. False when the file
// could not be written, which leaves it unchanged, and when a file that exists held nothing to
// delete.
KEMD_API bool WritePrivateProfileString(const char* section, const char* key, const char* value,
                                        const char* fileName);

// One profile file by name. All operations but SetFileName, IsValid, Invalidate and GetFileName
// fail while the object is not valid. Values and lists of more than 64,509 characters count as
// unreadable.
class KEMD_API CProfileFile {
  public:
    CProfileFile();
    ~CProfileFile();
    CProfileFile(const CProfileFile&) = delete;
    CProfileFile& operator=(const CProfileFile&) = delete;

    // Keeps a copy of the path. The object is valid afterwards, with `mustExist` only when the file
    // can be read.
    bool SetFileName(const char* path, bool mustExist);
    // The same test on the name that is set; changes nothing.
    [[nodiscard]] bool Check(bool mustExist) const;
    [[nodiscard]] bool IsValid() const { return m_isValid; }
    void Invalidate() { m_isValid = false; }
    // Empty when there is none. Valid until the next SetFileName.
    [[nodiscard]] const char* GetFileName() const;

    // A number in C notation (decimal, 0x, leading 0).
    uint32_t GetUInt(const char* section, const char* key, uint32_t defaultValue);
    // False when the object is not valid, which leaves `out` alone, and when the value is too long,
    // which stores `defaultText`.
    bool GetString(std::string& out, const char* section, const char* key, const char* defaultText);
    // A pointer into the object, valid until the next call on it; or `defaultText`, which must not
    // be a pointer into the object.
    const char* GetValue(const char* section, const char* key, const char* defaultText);
    // The first key name of the section, or with null the first section name; empty when there is
    // none. NextEntry gives the others and stays on the empty name that ends them. The names are
    // valid until the next GetList, GetSectionNames, GetKeyNames or CopySection.
    const char* GetList(const char* section);
    const char* NextEntry();
    // These append to `names`; false when there is none.
    bool GetSectionNames(std::vector<std::string>& names);
    bool GetKeyNames(std::vector<std::string>& names, const char* section);

    bool WriteString(const char* section, const char* key, const char* value);
    bool WriteUInt(const char* section, const char* key, uint32_t number);
    bool WriteInt(const char* section, const char* key, int32_t number);
    bool DeleteSection(const char* section);
    bool DeleteKey(const char* section, const char* key);
    // Writes each entry of `from` into `to`; a value that is too long becomes empty. Returns
    // whether the object is valid.
    bool CopySection(const char* from, const char* to);
    // Nothing is kept in memory, so there is nothing to write.
    void Flush();

  private:
    struct Buffer {
        std::unique_ptr<char[]> text;
        uint32_t size = 0;
    };
    bool Read(Buffer& buffer, const char* section, const char* key, const char* defaultText);
    bool AppendNames(std::vector<std::string>& names, const char* section);
    void CopyEntries(const std::string& from, const std::string& to);

    std::unique_ptr<char[]> m_fileName;
    Buffer m_value;
    Buffer m_list;
    const char* m_cursor = nullptr;  // in the list: the current name
    bool m_isValid = false;
};

KEMD_CLASS_SIZE(CProfileFile, 56);
