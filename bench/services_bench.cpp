// The cost of events, semaphores and series without contention, compared with the bare calls they
// make.
#include <pthread.h>
#include <sched.h>
#include <semaphore.h>

#include <cstdlib>

#include "bench/measure.h"
#include "kemd/event.h"
#include "kemd/performance.h"
#include "kemd/semaphore.h"

namespace {

struct BareEvent {
    pthread_mutex_t mutex = PTHREAD_MUTEX_INITIALIZER;
    pthread_cond_t cond = PTHREAD_COND_INITIALIZER;
    bool isSignaled = false;

    void Set() {
        pthread_mutex_lock(&mutex);
        isSignaled = true;
        pthread_cond_signal(&cond);
        pthread_mutex_unlock(&mutex);
        sched_yield();
    }
    bool Take() {
        pthread_mutex_lock(&mutex);
        const bool wasSignaled = isSignaled;
        isSignaled = false;
        pthread_mutex_unlock(&mutex);
        return wasSignaled;
    }
};

void CompareEvents() {
    static BareEvent bare;
    static EventHandle event;
    CreateEvent(event, false, false, nullptr);
    std::vector<Contender> contenders = {
        Make("lock, cond_signal, unlock, sched_yield; lock, unlock",
             [](int) {
                 bare.Set();
                 if (!bare.Take()) abort();
             }),
        Make("SetEvent, WaitForEvent",
             [](int) {
                 if (SetEvent(event) != 1 || WaitForEvent(event, 0) != kWaitSignaled) abort();
             }),
    };
    MeasureRounds(contenders, 101, 5000);
    Report("auto-reset event, set and waited for", contenders);
}

void CompareSemaphores() {
    static sem_t bare;
    static SemaphoreHandle semaphore;
    if (sem_init(&bare, 0, 0) != 0 || CreateSemaphore(semaphore, 0, 1, nullptr) != 1) abort();
    std::vector<Contender> contenders = {
        Make("sem_post, sem_trywait",
             [](int) {
                 if (sem_post(&bare) != 0 || sem_trywait(&bare) != 0) abort();
             }),
        Make("ReleaseSemaphore, WaitForSemaphore",
             [](int) {
                 if (!ReleaseSemaphore(semaphore, 1) || WaitForSemaphore(semaphore, 0) != 0) {
                     abort();
                 }
             }),
    };
    MeasureRounds(contenders, 101, 50'000);
    Report("semaphore, released and waited for", contenders);
}

void CompareSeries() {
    static uint64_t bare = 0;
    static KemdSeries* series = nullptr;
    const KemdSeriesDescription description = {
        sizeof description, KEMD_SERIES_COUNTER, "bench", nullptr, nullptr, nullptr};
    if (KemdSeriesRegister(&series, &description) != 0) abort();
    static KemdSeries* real = nullptr;
    const KemdSeriesDescription realDescription = {
        sizeof realDescription, KEMD_SERIES_REAL_GAUGE, "real", nullptr, nullptr, nullptr};
    if (KemdSeriesRegister(&real, &realDescription) != 0) abort();
    std::vector<Contender> contenders = {
        Make("relaxed atomic add", [](int) { __atomic_fetch_add(&bare, 1, __ATOMIC_RELAXED); }),
        Make("KemdSeriesAdd", [](int) { KemdSeriesAdd(series, 1); }),
        Make("KemdSeriesSet", [](int count) { KemdSeriesSet(series, count); }),
        Make("KemdSeriesSetReal", [](int count) { KemdSeriesSetReal(real, count); }),
        Make("KemdSeriesAddReal", [](int) { KemdSeriesAddReal(real, 0.5); }),
    };
    MeasureRounds(contenders, 101, 100000);
    Report("series of a module", contenders);
}

}  // namespace

int main() {
    CompareEvents();
    CompareSemaphores();
    CompareSeries();
    return 0;
}
