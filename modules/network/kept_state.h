// What is known of each interface, kept in the registry for the next run of the daemon. One thread
// at a time. Throws std::bad_alloc alone.
#pragma once

#include <map>
#include <string>

// A text for each interface, by name.
using KeptTexts = std::map<std::string, std::string>;

class KeptState {
  public:
    // What the last run kept; false when there was none.
    bool Load(KeptTexts& texts);
    // Writes what is different; complains when that begins to fail.
    void Save(const KeptTexts& texts);

  private:
    int TrySave(const KeptTexts& texts);

    KeptTexts m_stored;
    int m_error = 0;  // of the last save
};
