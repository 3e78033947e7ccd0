// Runs each fuzz input on a thread whose stack is a request worker's (256 KiB),
// as the plug-in parses client data: a parser that recurses on its input then
// overflows here and is reported, instead of passing on the main thread's
// 8 MiB. One long-lived thread takes the inputs in turn.
#ifndef HPW_FUZZ_ONWORKERSTACK_H
#define HPW_FUZZ_ONWORKERSTACK_H

#include <pthread.h>

#include <condition_variable>
#include <cstdlib>
#include <functional>
#include <mutex>

class OnWorkerStack {
public:
    static void run(const std::function<void()>& work)
    {
        // Never destroyed: the thread waits on the runner until the process
        // exits, and destroying a condition variable it waits on would hang
        // the exit.
        static OnWorkerStack* runner = new OnWorkerStack;
        runner->post(work);
    }

private:
    OnWorkerStack()
    {
        pthread_attr_t attributes;
        pthread_attr_init(&attributes);
        pthread_attr_setstacksize(&attributes, 0x40000);
        if (pthread_create(&m_thread, &attributes, &OnWorkerStack::loop, this) != 0) {
            std::abort();
        }
        pthread_attr_destroy(&attributes);
    }

    void post(const std::function<void()>& work)
    {
        std::unique_lock<std::mutex> lock(m_lock);
        m_work = &work;
        m_changed.notify_all();
        m_changed.wait(lock, [this] { return m_work == nullptr; });
    }

    static void* loop(void* self)
    {
        OnWorkerStack* runner = static_cast<OnWorkerStack*>(self);
        std::unique_lock<std::mutex> lock(runner->m_lock);
        for (;;) {
            runner->m_changed.wait(lock, [runner] { return runner->m_work != nullptr; });
            (*runner->m_work)();
            runner->m_work = nullptr;
            runner->m_changed.notify_all();
        }
        return nullptr;
    }

    pthread_t m_thread;
    std::mutex m_lock;
    std::condition_variable m_changed;
    const std::function<void()>* m_work = nullptr;
};

#endif  // HPW_FUZZ_ONWORKERSTACK_H
