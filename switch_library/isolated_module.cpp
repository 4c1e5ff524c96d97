#include "switch_library/isolated_module.h"

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstring>
#include <stdexcept>

#include "base/file_io.h"
#include "base/file_safety.h"
#include "base/module_object.h"
#include "kemd/performance.h"
#include "kemd/trace.h"

using std::chrono::milliseconds;

IsolatedModule::IsolatedModule(IsolatedModules& processes, std::string file, std::string path)
    : m_processes(processes),
      m_file(std::move(file)),
      m_path(std::move(path)),
      m_name(ModuleName(m_file)) {}

IsolatedModule::~IsolatedModule() {
    m_processes.Forget(m_file);
    Unload();
}

std::string IsolatedModule::Load(const ModuleSettings& settings) try {
    m_settings = settings;
    m_isDaemonStop = false;
    m_process.reset();
    // Checked when it was found, but it may be started again much later.
    std::string fault = Unsafe(WalkPath(m_path));
    if (!fault.empty()) return fault;
    m_process = m_processes.Spawn(m_file, settings.isRestarted, fault);
    if (m_process == nullptr) return fault;
    IsolatedRequest request{};
    request.call = IsolatedCall::kLoad;
    request.memoryLimit = static_cast<uint64_t>(settings.memoryLimit);
    std::string text;
    const IsolatedAnswer answer = Invoke(request, m_path + '\0' + settings.user + '\0', &text);
    if (answer.outcome != IsolatedOutcome::kRefused) {
        TakeFacts(answer, text);
        return {};
    }
    Unload();
    return text;
} catch (const std::runtime_error& error) {
    std::string why = error.what();
    if (IsAlive()) Unload();  // an initialiser threw
    return why;
}

void IsolatedModule::TakeFacts(const IsolatedAnswer& answer, const std::string& text) {
    m_texts.clear();
    for (size_t begin = 0; begin < text.size();) {
        const size_t end = std::min(text.find('\0', begin), text.size());
        m_texts.push_back(text.substr(begin, end - begin));
        begin = end + 1;
    }
    m_texts.resize(std::max<size_t>(m_texts.size(), 2));
    m_startAfter.clear();
    for (size_t i = 2; i < m_texts.size(); ++i) m_startAfter.push_back(m_texts[i].c_str());
    m_startAfter.push_back(nullptr);
    m_object = {KEMD_MODULE_V2_HEAD,
                m_name.c_str(),
                m_texts[0].c_str(),
                m_texts[1].c_str(),
                m_startAfter.data(),
                this,
                Configure,
                Start,
                Stop,
                Notify,
                Health,
                Request};
    if ((answer.has & kIsolatedHasConfigure) == 0) m_object.configure = nullptr;
    if ((answer.has & kIsolatedHasHealth) == 0) m_object.health = nullptr;
    if ((answer.has & kIsolatedHasRequest) == 0) m_object.request = nullptr;
}

void IsolatedModule::Unload() {
    if (m_process == nullptr) return;
    const std::string fault = m_process->End(milliseconds(m_settings.stopTimeoutMs));
    m_process.reset();
    KemdSeriesForget(m_name.c_str());
    if (fault.empty()) return;
    KemdMessage("switch", "module %s did not end in order: %s", m_file.c_str(), fault.c_str());
}

IsolatedAnswer IsolatedModule::Invoke(const IsolatedRequest& request, std::string_view text,
                                      std::string* answer) {
    if (m_process == nullptr) throw std::runtime_error("its process has ended");
    const bool isStart = request.call == IsolatedCall::kLoad ||
                         request.call == IsolatedCall::kConfigure ||
                         request.call == IsolatedCall::kStart;
    std::string unused;
    return m_process->Call(
        request, text, milliseconds(isStart ? m_settings.startTimeoutMs : m_settings.stopTimeoutMs),
        answer != nullptr ? *answer : unused);
}

int IsolatedModule::Configure(void* user, const KemdConfig* /*config*/) {
    auto& self = *static_cast<IsolatedModule*>(user);
    const std::string& file = self.m_settings.file;
    constexpr size_t kMostSettings = size_t{64} << 10;
    auto content = ReadTextFile(file, kMostSettings + 1);
    if (!content && errno != ENOENT) throw std::runtime_error(file + ": " + std::strerror(errno));
    if (content && content->size() > kMostSettings) {
        throw std::runtime_error(file + ": it has more than 64 KiB");
    }
    IsolatedRequest request{};
    request.call = IsolatedCall::kConfigure;
    return self.Invoke(request, file + '\0' + content.value_or("")).result;
}

int IsolatedModule::Start(void* user) {
    IsolatedRequest request{};
    request.call = IsolatedCall::kStart;
    return static_cast<IsolatedModule*>(user)->Invoke(request).result;
}

void IsolatedModule::Stop(void* user) {
    auto& self = *static_cast<IsolatedModule*>(user);
    self.m_processes.Forget(self.m_file);
    if (!self.IsAlive()) return;  // reported when it ended
    self.m_process->ExpectEnd();
    IsolatedRequest request{};
    request.call = IsolatedCall::kStop;
    request.isDaemonStop = self.m_isDaemonStop ? 1 : 0;
    (void)self.Invoke(request);
}

// Sent even if the module takes none: the exit event of its process depends on it.
void IsolatedModule::Notify(void* user, uint32_t code, const void* data) {
    auto& self = *static_cast<IsolatedModule*>(user);
    if (!self.IsAlive()) return;
    IsolatedRequest request{};
    request.call = IsolatedCall::kNotify;
    request.code = code;
    if (code == KEMD_NOTIFY_SHUTDOWN) std::memcpy(&request.runLevel, data, sizeof request.runLevel);
    (void)self.Invoke(request);
}

int IsolatedModule::Health(void* user, char* text, size_t size) {
    IsolatedRequest request{};
    request.call = IsolatedCall::kHealth;
    std::string why;
    const int health = static_cast<IsolatedModule*>(user)->Invoke(request, {}, &why).result;
    if (size > 0) text[why.copy(text, size - 1)] = '\0';
    return health;
}

int IsolatedModule::Request(void* user, const char* text, KemdReply* reply) {
    IsolatedRequest request{};
    request.call = IsolatedCall::kRequest;
    std::string answer;
    const int result = static_cast<IsolatedModule*>(user)->Invoke(request, text, &answer).result;
    const int error = reply->write(reply, answer.data(), answer.size());
    return result != 0 ? result : error;
}
