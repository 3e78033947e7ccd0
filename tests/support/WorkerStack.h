// Runs a piece of code on a thread whose stack is a request worker's (256 KiB),
// so that a parser that recurses on its input fails the test by overflowing
// here instead of in the field.
#ifndef TESTS_SUPPORT_WORKERSTACK_H
#define TESTS_SUPPORT_WORKERSTACK_H

#include <pthread.h>

#include <functional>

namespace testsupport {

const size_t kWorkerStackSize = 0x40000;  // as the plug-in's request workers have

// Runs work on a fresh thread with the worker's stack and waits for it.
inline bool runOnWorkerStack(const std::function<void()>& work)
{
    pthread_attr_t attributes;
    pthread_attr_init(&attributes);
    pthread_attr_setstacksize(&attributes, kWorkerStackSize);
    pthread_t thread;
    auto body = [](void* argument) -> void* {
        (*static_cast<const std::function<void()>*>(argument))();
        return nullptr;
    };
    bool started = pthread_create(&thread, &attributes, body, const_cast<std::function<void()>*>(&work)) == 0;
    pthread_attr_destroy(&attributes);
    return started && pthread_join(thread, nullptr) == 0;
}

}  // namespace testsupport

#endif  // TESTS_SUPPORT_WORKERSTACK_H
