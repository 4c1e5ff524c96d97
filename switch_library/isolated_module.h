// A module in a process of its own as the switch library calls every module: a module's object
// whose calls go to the process. They throw std::runtime_error when the module threw or its process
// ended.
#pragma once

#include <memory>
#include <string>
#include <vector>

#include "kemd/module.h"
#include "services/module_settings.h"
#include "switch_library/isolated_modules.h"
#include "switch_library/isolated_process.h"

class IsolatedModule {
  public:
    // `file`: its name; `path`: where it is.
    IsolatedModule(IsolatedModules& processes, std::string file, std::string path);
    // Ends the process.
    ~IsolatedModule();
    IsolatedModule(const IsolatedModule&) = delete;
    IsolatedModule& operator=(const IsolatedModule&) = delete;

    // Makes a process and loads the module there. Empty, or why not.
    std::string Load(const ModuleSettings& settings);
    // Lets the process end, as an unload does.
    void Unload();
    // What it exports, after Load.
    [[nodiscard]] const KemdModuleV2* Object() const { return &m_object; }
    [[nodiscard]] bool IsAlive() const { return m_process != nullptr && !m_process->IsOver(); }
    // Its process ended without being expected to: that was reported, and it may be started again.
    [[nodiscard]] bool HasEnded() const { return m_process != nullptr && m_process->IsOver(); }
    // 0 when it is not alive.
    [[nodiscard]] pid_t Process() const { return IsAlive() ? m_process->Id() : 0; }
    // Time-outs and file of these hold from now on.
    void Use(const ModuleSettings& settings) { m_settings = settings; }
    // The next stop is one of the daemon.
    void ExpectDaemonStop() { m_isDaemonStop = true; }

  private:
    static int Configure(void* user, const KemdConfig* config);
    static int Start(void* user);
    static void Stop(void* user);
    static void Notify(void* user, uint32_t code, const void* data);
    static int Health(void* user, char* text, size_t size);
    static int Request(void* user, const char* text, KemdReply* reply);

    void TakeFacts(const IsolatedAnswer& answer, const std::string& text);
    IsolatedAnswer Invoke(const IsolatedRequest& request, std::string_view text = {},
                          std::string* answer = nullptr);

    IsolatedModules& m_processes;
    const std::string m_file;
    const std::string m_path;
    ModuleSettings m_settings;
    bool m_isDaemonStop = false;
    std::shared_ptr<IsolatedProcess> m_process;
    // What m_object points at.
    std::vector<std::string> m_texts;
    std::vector<const char*> m_startAfter;
    std::string m_name;
    KemdModuleV2 m_object{};
};
