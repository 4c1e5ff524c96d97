#include "inventory/health_questions.h"

#include <fcntl.h>
#include <linux/nvme_ioctl.h>
#include <pthread.h>
#include <scsi/sg.h>
#include <signal.h>
#include <sys/ioctl.h>
#include <sys/stat.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <chrono>
#include <condition_variable>
#include <memory>
#include <mutex>
#include <new>

#include "base/never_destroyed.h"
#include "base/unique_fd.h"
#include "inventory/table_field.h"

namespace {

using Clock = std::chrono::steady_clock;

constexpr std::chrono::seconds kQuestionTime{kHealthQuestionSeconds};
// For all questions to one drive: none is asked after that.
constexpr std::chrono::seconds kDriveTime{4};

// Drives that a thread is asking.
class BusyDrives {
  public:
    bool Add(dev_t number) {
        const std::lock_guard lock(m_mutex);
        if (std::find(m_numbers.begin(), m_numbers.end(), number) != m_numbers.end()) return false;
        m_numbers.push_back(number);
        return true;
    }
    void Remove(dev_t number) {
        const std::lock_guard lock(m_mutex);
        std::erase(m_numbers, number);
    }

  private:
    std::mutex m_mutex;
    std::vector<dev_t> m_numbers;
};

NeverDestroyed<BusyDrives> g_busy;

// What the threads that ask share with the one that waits. The last of them releases it.
class Round {
  public:
    explicit Round(const std::vector<HealthTarget>& targets)
        : m_begin(Clock::now()), m_drives(targets.size()) {
        for (size_t i = 0; i < targets.size(); ++i) {
            m_drives[i].target = targets[i];
            m_drives[i].since = m_begin;
        }
    }

    [[nodiscard]] const HealthTarget& Target(size_t position) const {
        return m_drives[position].target;
    }
    // False when no more may be asked.
    [[nodiscard]] bool BeginQuestion(size_t position) {
        const std::lock_guard lock(m_mutex);
        const Clock::time_point now = Clock::now();
        m_drives[position].since = now;
        return !m_drives[position].isOver && now - m_begin < kDriveTime;
    }
    void Finish(size_t position, HealthAnswer answer) {
        const std::lock_guard lock(m_mutex);
        if (m_drives[position].isOver) return;
        m_drives[position].isOver = true;
        m_drives[position].answer = std::move(answer);
        m_condition.notify_one();
    }
    std::vector<HealthAnswer> Wait() {
        std::unique_lock lock(m_mutex);
        for (Clock::time_point next = GiveUpLate(); next != Clock::time_point::max();
             next = GiveUpLate()) {
            m_condition.wait_until(lock, next);
        }
        std::vector<HealthAnswer> answers;
        for (Drive& drive : m_drives) answers.push_back(std::move(drive.answer));
        return answers;
    }

  private:
    struct Drive {
        HealthTarget target;
        Clock::time_point since;
        bool isOver = false;
        HealthAnswer answer;
    };

    // When to look again; max when all are over.
    Clock::time_point GiveUpLate() {
        Clock::time_point next = Clock::time_point::max();
        const Clock::time_point now = Clock::now();
        for (Drive& drive : m_drives) {
            if (drive.isOver) continue;
            if (now - drive.since >= kQuestionTime) {
                drive.isOver = true;
                drive.answer.isLate = true;
            } else {
                next = std::min(next, drive.since + kQuestionTime);
            }
        }
        return next;
    }

    std::mutex m_mutex;
    std::condition_variable m_condition;
    Clock::time_point m_begin;
    std::vector<Drive> m_drives;
};

// One drive as its thread asks it.
class Drive {
  public:
    Drive(std::shared_ptr<Round> round, size_t position)
        : m_round(std::move(round)), m_position(position) {}

    void Run() noexcept {
        try {
            if (Open()) Ask();
        } catch (const std::bad_alloc&) {
            m_answer.error = ENOMEM;
        }
        g_busy.object.Remove(Target().number);
        m_round->Finish(m_position, std::move(m_answer));
    }

  private:
    using Sense = std::array<uint8_t, 64>;
    // Longer than any answer that is asked for.
    using Page = std::array<uint8_t, 512>;
    struct Reply {
        bool isGood = false;
        size_t size = 0;
        size_t senseSize = 0;
    };

    [[nodiscard]] const HealthTarget& Target() const { return m_round->Target(m_position); }
    bool Open();
    void Ask();
    void AskNvme();
    void AskAta();
    void AskAtaStatistics();
    void AskScsi();

    // The call's result; -1 when it failed or no more may be asked.
    int Call(unsigned long request, void* argument);
    Reply Send(std::span<uint8_t> command, std::span<uint8_t> data);
    std::optional<AtaRegisters> AtaCommand(uint8_t command, uint8_t feature, uint8_t lbaMid,
                                           uint8_t lbaHigh);
    bool ReadAta(uint8_t command, uint8_t feature, uint8_t lbaLow, uint8_t lbaMid, uint8_t lbaHigh);
    DriveBytes ReadScsiLog(uint8_t page);

    std::shared_ptr<Round> m_round;
    size_t m_position;
    HealthAnswer m_answer;
    UniqueFd m_fd;
    Sense m_sense{};
    Page m_page{};
};

bool Drive::Open() {
    if (!m_round->BeginQuestion(m_position)) return false;
    // O_NONBLOCK: a drive without a medium opens too.
    m_fd.Reset(open(Target().device.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC | O_NOCTTY));
    struct stat status {};
    if (!m_fd.IsOpen() || fstat(m_fd.Get(), &status) != 0) {
        m_answer.error = errno;
        return false;
    }
    if (status.st_rdev != Target().number) m_answer.error = ENODEV;
    return m_answer.error == 0;
}

void Drive::Ask() {
    switch (Target().language) {
        case HealthLanguage::kNvme:
            return AskNvme();
        case HealthLanguage::kAta:
            return AskAta();
        case HealthLanguage::kScsi:
            return AskScsi();
    }
}

// The kernel's own time-outs stay long, though nobody waits for them: when one ends, the kernel
// aborts commands and resets the link, also of a drive that is merely busy.
int Drive::Call(unsigned long request, void* argument) {
    if (m_answer.error != 0 || !m_round->BeginQuestion(m_position)) return -1;
    const int result = ioctl(m_fd.Get(), request, argument);
    const int error = errno;
    // What the drive's driver does not know is no failure of the drive.
    const bool isUnknown = error == ENOTTY || error == EINVAL || error == EOPNOTSUPP;
    if (result < 0 && !isUnknown) m_answer.error = error;
    return result;
}

void Drive::AskNvme() {
    constexpr uint8_t kGetLogPage = 0x02;
    constexpr uint32_t kHealthLog = 0x02;
    nvme_admin_cmd command{};
    command.opcode = kGetLogPage;
    command.nsid = 0xFFFFFFFF;
    command.addr = reinterpret_cast<uintptr_t>(m_page.data());
    command.data_len = m_page.size();
    command.cdw10 = kHealthLog | (m_page.size() / 4 - 1) << 16;
    // Above 0: the controller refuses.
    if (Call(NVME_IOCTL_ADMIN_CMD, &command) == 0) (void)TakeNvmeHealth(m_page, m_answer.health);
}

Drive::Reply Drive::Send(std::span<uint8_t> command, std::span<uint8_t> data) {
    constexpr unsigned kKernelTimeout = 30000;  // milliseconds; that of a read
    constexpr uint8_t kCheckCondition = 0x02;
    constexpr uint8_t kDriverSense = 0x08;
    m_sense.fill(0);
    std::fill(data.begin(), data.end(), uint8_t{0});
    sg_io_hdr_t header{};
    header.interface_id = 'S';
    header.dxfer_direction = data.empty() ? SG_DXFER_NONE : SG_DXFER_FROM_DEV;
    header.cmd_len = static_cast<uint8_t>(command.size());
    header.cmdp = command.data();
    header.dxfer_len = static_cast<unsigned>(data.size());
    header.dxferp = data.data();
    header.mx_sb_len = m_sense.size();
    header.sbp = m_sense.data();
    header.timeout = kKernelTimeout;
    Reply reply;
    if (Call(SG_IO, &header) < 0 || header.host_status != 0) return reply;
    reply.senseSize = std::min<size_t>(header.sb_len_wr, m_sense.size());
    const bool hasSense = header.status == kCheckCondition || header.driver_status == kDriverSense;
    if (!hasSense) reply.senseSize = 0;
    reply.isGood = header.status == 0 && (header.driver_status & ~kDriverSense) == 0;
    if (reply.isGood && header.resid >= 0 && static_cast<size_t>(header.resid) <= data.size()) {
        reply.size = data.size() - static_cast<size_t>(header.resid);
    }
    return reply;
}

constexpr uint8_t kAtaPassThrough16 = 0x85;

// A command without data, whose answer is the registers.
std::optional<AtaRegisters> Drive::AtaCommand(uint8_t command, uint8_t feature, uint8_t lbaMid,
                                              uint8_t lbaHigh) {
    constexpr uint8_t kNoData = 3 << 1;
    constexpr uint8_t kReturnRegisters = 0x20;
    auto cdb = std::to_array<uint8_t>({kAtaPassThrough16, kNoData, kReturnRegisters, 0, feature, 0,
                                       0, 0, 0, 0, lbaMid, 0, lbaHigh, 0, command, 0});
    const Reply reply = Send(cdb, {});
    const std::optional<AtaRegisters> registers =
        FindAtaRegisters(DriveBytes(m_sense).first(reply.senseSize));
    if (!registers || registers->IsError()) return std::nullopt;
    return registers;
}

// A sector into m_page.
bool Drive::ReadAta(uint8_t command, uint8_t feature, uint8_t lbaLow, uint8_t lbaMid,
                    uint8_t lbaHigh) {
    constexpr uint8_t kReadLogExt = 0x2F;
    constexpr uint8_t kDataIn = 4 << 1;
    // One block, from the device, counted in the count register.
    constexpr uint8_t kOneSector = 0x0E;
    const auto protocol = static_cast<uint8_t>(kDataIn | (command == kReadLogExt ? 1 : 0));
    auto cdb = std::to_array<uint8_t>({kAtaPassThrough16, protocol, kOneSector, 0, feature, 0, 1, 0,
                                       lbaLow, 0, lbaMid, 0, lbaHigh, 0, command, 0});
    const Reply reply = Send(cdb, m_page);
    return reply.isGood && reply.size == m_page.size();
}

void Drive::AskAta() {
    constexpr uint8_t kCheckPowerMode = 0xE5;
    constexpr uint8_t kIdentify = 0xEC;
    constexpr uint8_t kSmart = 0xB0;
    constexpr uint8_t kReadData = 0xD0;
    constexpr uint8_t kReturnStatus = 0xDA;
    constexpr uint8_t kSmartMid = 0x4F;
    constexpr uint8_t kSmartHigh = 0xC2;
    DriveHealth& health = m_answer.health;
    // A bridge that does not return registers cannot say whether the drive sleeps: then no question
    // is safe.
    const std::optional<AtaRegisters> power = AtaCommand(kCheckPowerMode, 0, 0, 0);
    if (!power) return;
    health.powerState = AtaPowerState(*power);
    if (health.powerState == "standby") return;
    if (!ReadAta(kIdentify, 0, 0, 0, 0)) return;
    // Words 85 and 87 hold what is enabled; the highest two bits of word 87 are 01 when it is
    // valid.
    const bool hasSmart = (ReadWord(m_page, 170) & 1) != 0;
    const bool hasLogs = (ReadWord(m_page, 174) & 0xC020) == 0x4020;
    if (hasSmart) {
        const std::optional<AtaRegisters> status =
            AtaCommand(kSmart, kReturnStatus, kSmartMid, kSmartHigh);
        if (status) health.isFailing = IsAtaFailing(*status);
        if (ReadAta(kSmart, kReadData, 0, kSmartMid, kSmartHigh)) TakeAtaAttributes(m_page, health);
    }
    if (hasLogs) AskAtaStatistics();
    if (health.isFailing.value_or(false)) {
        health.criticalWarnings.emplace_back("failure predicted");
    }
}

void Drive::AskAtaStatistics() {
    constexpr uint8_t kReadLogExt = 0x2F;
    constexpr uint8_t kDeviceStatistics = 0x04;
    if (!ReadAta(kReadLogExt, 0, kDeviceStatistics, 0, 0)) return;
    for (const uint8_t page : AtaStatisticsPages(m_page)) {
        if (!ReadAta(kReadLogExt, 0, kDeviceStatistics, page, 0)) return;
        TakeAtaStatistics(m_page, page, m_answer.health);
    }
}

DriveBytes Drive::ReadScsiLog(uint8_t page) {
    constexpr uint8_t kLogSense = 0x4D;
    constexpr uint8_t kCurrentValues = 0x40;
    constexpr uint8_t kHigh = sizeof(Page) >> 8;
    constexpr uint8_t kLow = sizeof(Page) & 0xFF;
    auto cdb = std::to_array<uint8_t>(
        {kLogSense, 0, static_cast<uint8_t>(kCurrentValues | page), 0, 0, 0, 0, kHigh, kLow, 0});
    return DriveBytes(m_page).first(Send(cdb, m_page).size);
}

void Drive::AskScsi() {
    constexpr uint8_t kTestUnitReady = 0x00;
    constexpr uint8_t kRequestSense = 0x03;
    constexpr uint8_t kSenseSize = 64;
    constexpr uint8_t kNoMedium = 0x3A;
    DriveHealth& health = m_answer.health;
    auto requestSense = std::to_array<uint8_t>({kRequestSense, 0, 0, 0, kSenseSize, 0});
    const Reply asked = Send(requestSense, std::span(m_page).first(kSenseSize));
    std::optional<SenseCode> sense = FindSense(DriveBytes(m_page).first(asked.size));
    if (!sense) return;
    health.powerState = ScsiPowerState(*sense);
    if (health.powerState == "standby") return;
    auto testUnitReady = std::to_array<uint8_t>({kTestUnitReady, 0, 0, 0, 0, 0});
    const Reply tested = Send(testUnitReady, {});
    if (!tested.isGood) {
        sense = FindSense(DriveBytes(m_sense).first(tested.senseSize));
        if (!sense || sense->code == kNoMedium) return;
        health.powerState = ScsiPowerState(*sense);
        if (health.powerState == "standby") return;
    }
    for (const uint8_t page : ScsiLogPages(ReadScsiLog(0))) {
        TakeScsiLog(ReadScsiLog(page), page, health);
    }
}

struct ThreadArgument {
    std::shared_ptr<Round> round;
    size_t position;
};

void* RunThread(void* pointer) {
    const std::unique_ptr<ThreadArgument> argument(static_cast<ThreadArgument*>(pointer));
    Drive(std::move(argument->round), argument->position).Run();
    return nullptr;
}

// An errno number.
int StartThread(const std::shared_ptr<Round>& round, size_t position) {
    // The sanitizers' needs; an ordinary thread touches two pages of it.
    constexpr size_t kStack = size_t{256} << 10;
    std::unique_ptr<ThreadArgument> argument(new (std::nothrow) ThreadArgument{round, position});
    if (argument == nullptr) return ENOMEM;
    pthread_attr_t attributes;
    int error = pthread_attr_init(&attributes);
    if (error != 0) return error;
    pthread_attr_setdetachstate(&attributes, PTHREAD_CREATE_DETACHED);
    pthread_attr_setstacksize(&attributes, kStack);
    // Signals are for the process's own threads.
    sigset_t signals;
    sigfillset(&signals);
    pthread_attr_setsigmask_np(&attributes, &signals);
    pthread_t thread{};
    error = pthread_create(&thread, &attributes, RunThread, argument.get());
    pthread_attr_destroy(&attributes);
    if (error == 0) (void)argument.release();
    return error;
}

}  // namespace

std::vector<HealthAnswer> AskForHealth(const std::vector<HealthTarget>& targets) {
    const auto round = std::make_shared<Round>(targets);
    for (size_t i = 0; i < targets.size(); ++i) {
        if (!g_busy.object.Add(targets[i].number)) {
            round->Finish(i, {{}, 0, true});
            continue;
        }
        const int error = StartThread(round, i);
        if (error == 0) continue;
        g_busy.object.Remove(targets[i].number);
        round->Finish(i, {{}, error, false});
    }
    return round->Wait();
}
