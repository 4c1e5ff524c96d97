// Asks drives for their health: reads alone, and nothing that wakes a drive in standby.
#pragma once

#include <sys/types.h>

#include <cstdint>
#include <string>
#include <vector>

#include "inventory/drive_health.h"

// kAta also for what a USB bridge or a SAS adapter hides, when that passes ATA commands on.
enum class HealthLanguage : uint8_t { kNvme, kAta, kScsi };

struct HealthTarget {
    std::string device;  // "/dev/sda"
    dev_t number = 0;    // the node must have it
    HealthLanguage language = HealthLanguage::kAta;
};

struct HealthAnswer {
    DriveHealth health;
    int error = 0;        // an errno number: why the drive could not be asked
    bool isLate = false;  // no answer within kHealthQuestionSeconds, or an earlier one still waits
};

constexpr int kHealthQuestionSeconds = 2;

// In the order of the targets. All drives are asked at the same time, each in a thread of its own.
// A drive that does not answer a question in time is given up: its thread ends when the kernel lets
// it, and until then nobody asks that drive again. Any thread. May throw std::bad_alloc.
std::vector<HealthAnswer> AskForHealth(const std::vector<HealthTarget>& targets);
