// The library's entry points and its one piece of state: the loaded key,
// shared by all callers of the process and counted by Init/Fini.
#include "identify/Identify.h"

#include <pthread.h>
#include <time.h>

#include <openssl/crypto.h>

#include "KeyFile.h"
#include "Settings.h"
#include "Token.h"

namespace {

// Writers (Init, Fini) change the state; readers (Check, Apply) run in
// parallel on the key they all see.
pthread_rwlock_t g_stateLock = PTHREAD_RWLOCK_INITIALIZER;
int g_initCount = 0;
identify::KeyMaterial g_keyMaterial;
int64_t g_lifetimeMs = identify::kDefaultLifetimeMs;

// Wall-clock time: tokens travel between processes, which share no other clock.
int64_t NowMs()
{
    struct timespec now;
    clock_gettime(CLOCK_REALTIME, &now);
    return static_cast<int64_t>(now.tv_sec) * 1000 + now.tv_nsec / 1000000;
}

class ReadGuard {
public:
    ReadGuard() { pthread_rwlock_rdlock(&g_stateLock); }
    ~ReadGuard() { pthread_rwlock_unlock(&g_stateLock); }
    ReadGuard(const ReadGuard&) = delete;
    ReadGuard& operator=(const ReadGuard&) = delete;
};

class WriteGuard {
public:
    WriteGuard() { pthread_rwlock_wrlock(&g_stateLock); }
    ~WriteGuard() { pthread_rwlock_unlock(&g_stateLock); }
    WriteGuard(const WriteGuard&) = delete;
    WriteGuard& operator=(const WriteGuard&) = delete;
};

void ForgetKey()
{
    OPENSSL_cleanse(&g_keyMaterial, sizeof(g_keyMaterial));
}

}  // namespace

extern "C" {

int Identify_Init(void)
{
    WriteGuard guard;
    if (g_initCount > 0) {
        ++g_initCount;  // the settings of the first start stay in force
        return 0;
    }
    int64_t lifetimeMs = 0;
    int result = identify::TokenLifetimeMs(&lifetimeMs);
    if (result == 0) {
        result = identify::LoadOrCreateKey(identify::KeyFilePath(), g_keyMaterial.key);
    }
    if (result == 0) {
        result = identify::DeriveKeyId(g_keyMaterial);
    }
    if (result != 0) {
        ForgetKey();
        return result;
    }
    g_lifetimeMs = lifetimeMs;
    g_initCount = 1;
    return 0;
}

int Identify_Fini(void)
{
    WriteGuard guard;
    if (g_initCount == 0) {
        return IDENTIFY_E_NOT_INIT;
    }
    if (--g_initCount == 0) {
        ForgetKey();
    }
    return 0;
}

int Identify_Check(int reserved1, int reserved2, const unsigned char* token, int length)
{
    if (reserved1 != 0 || reserved2 != 0 || (token == nullptr && length != 0)) {
        return IDENTIFY_E_PARAM;
    }
    ReadGuard guard;
    if (g_initCount == 0) {
        return IDENTIFY_E_NOT_INIT;
    }
    return identify::VerifyToken(g_keyMaterial, token, length, NowMs());
}

int Identify_Apply(int reserved1, int reserved2, unsigned char* out, int* length)
{
    if (reserved1 != 0 || reserved2 != 0 || length == nullptr) {
        return IDENTIFY_E_PARAM;
    }
    ReadGuard guard;
    if (g_initCount == 0) {
        return IDENTIFY_E_NOT_INIT;
    }
    // A null buffer is a question for the size, answered like a small one.
    if (out == nullptr || *length < identify::kTokenSize) {
        *length = identify::kTokenSize;
        return IDENTIFY_E_BUFFER_SMALL;
    }
    const int result = identify::SealToken(g_keyMaterial, NowMs(), g_lifetimeMs, out);
    if (result == 0) {
        *length = identify::kTokenSize;
    }
    return result;
}

}  // extern "C"
