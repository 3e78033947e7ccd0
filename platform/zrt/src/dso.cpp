// Dynamic loading.
#include "zrt/zrt.h"

#include <dlfcn.h>
#include <errno.h>

extern "C" {

void* ZRT_LoadDSo(const char* path)
{
    if (path == nullptr) {
        errno = EINVAL;
        return nullptr;
    }
    errno = 0;
    void* handle = dlopen(path, RTLD_NOW | RTLD_LOCAL);
    if (handle == nullptr && errno == 0) {
        errno = ENOENT;  // dlopen does not always set errno; callers log it
    }
    return handle;
}

void* ZRT_GetDsoSym(void* dso, const char* name)
{
    if (dso == nullptr || name == nullptr) {
        errno = EINVAL;
        return nullptr;
    }
    return dlsym(dso, name);
}

ZRT_INT32 ZRT_UnloadDSo(void* dso)
{
    if (dso == nullptr) {
        errno = EINVAL;
        return -1;
    }
    return dlclose(dso) == 0 ? 0 : -1;
}

const char* ZRT_GetDsoError(void)
{
    const char* text = dlerror();
    return text != nullptr ? text : "";
}

}  // extern "C"
