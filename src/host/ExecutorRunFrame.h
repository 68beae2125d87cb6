// Internal to the executors: marks, per thread, which executors are running a job on the calling
// thread, so that Stop can refuse to wait for itself and a destructor reached from one of its own
// jobs can avoid waiting forever. Thread-safety: each thread sees only its own frames.
#pragma once

#include <cstddef>
#include <functional>

namespace velacore::detail {

// Lives on the stack around one job; frames of nested executors chain together.
class ExecutorRunFrame {
public:
    // `owner` identifies the executor running the job; it is only compared, never used.
    explicit ExecutorRunFrame(const void* owner);
    ~ExecutorRunFrame();
    ExecutorRunFrame(const ExecutorRunFrame&) = delete;
    ExecutorRunFrame& operator=(const ExecutorRunFrame&) = delete;

    // Returns how many jobs of `owner` are running on the calling thread (0 or more).
    static size_t CountOnThisThread(const void* owner);

private:
    const void* owner_;
    ExecutorRunFrame* previous_;
};

// Runs a job, swallowing whatever it throws: the job owner handles its own errors.
void RunJobSwallowingErrors(const std::function<void()>& job) noexcept;

}  // namespace velacore::detail
