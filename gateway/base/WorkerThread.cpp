#include "base/WorkerThread.h"

bool WorkerThread::start(std::function<void()> body)
{
    if (m_started) {
        return false;
    }
    m_body = std::move(body);
    pthread_attr_t attributes;
    pthread_attr_init(&attributes);
    pthread_attr_setstacksize(&attributes, kStackSize);
    m_started = pthread_create(&m_thread, &attributes, &WorkerThread::run, this) == 0;
    pthread_attr_destroy(&attributes);
    return m_started;
}

void WorkerThread::join()
{
    if (m_started) {
        pthread_join(m_thread, nullptr);
        m_started = false;
    }
}

void* WorkerThread::run(void* self)
{
    static_cast<WorkerThread*>(self)->m_body();
    return nullptr;
}
