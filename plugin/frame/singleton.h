// Lazily created process-wide instance with double-checked locking on a
// per-type mutex. The servers and managers of the plug-in derive from it.
#ifndef HTTPWRAPPER_FRAME_SINGLETON_H
#define HTTPWRAPPER_FRAME_SINGLETON_H

#include <atomic>
#include <mutex>
#include <new>

#include <zrt/zrt.h>

namespace HttpWrapper {

template <typename T>
class singleton {
public:
    static T* instance()
    {
        T* existing = instance_.load(std::memory_order_acquire);
        if (existing != nullptr) {
            return existing;  // fast path: no lock
        }
        std::lock_guard<zrt::zrt_mutex> guard(lock_);
        existing = instance_.load(std::memory_order_relaxed);
        if (existing == nullptr) {
            existing = new (std::nothrow) T();
            instance_.store(existing, std::memory_order_release);
        }
        return existing;
    }

    // Destroys the instance; a later instance() creates a new one.
    static void free()
    {
        free_ = true;
        std::lock_guard<zrt::zrt_mutex> guard(lock_);
        delete instance_.exchange(nullptr);
    }

    virtual ~singleton()
    {
        // The instance is only ever destroyed through free(); the test keeps a
        // stray destruction from deleting it a second time.
        if (!free_) {
            std::lock_guard<zrt::zrt_mutex> guard(lock_);
            instance_.store(nullptr);
        }
    }

protected:
    singleton() = default;

private:
    static std::atomic<T*> instance_;
    static bool free_;
    static zrt::zrt_mutex lock_;
};

template <typename T>
std::atomic<T*> singleton<T>::instance_{nullptr};
template <typename T>
bool singleton<T>::free_ = false;
template <typename T>
zrt::zrt_mutex singleton<T>::lock_;

}  // namespace HttpWrapper

#endif  // HTTPWRAPPER_FRAME_SINGLETON_H
