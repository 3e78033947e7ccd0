// The library's C entry points: argument checks, the tables of listeners and
// handles, and the translation of internal results into -1 and the thread's
// last error. No C++ exception leaves this file.
#include "netutils/VQNetUtils.h"

#include "Connection.h"
#include "FileDelivery.h"
#include "LastError.h"
#include "Listener.h"

#include <cstring>
#include <map>
#include <memory>
#include <mutex>
#include <new>
#include <string>
#include <utility>
#include <vector>

using netutils::Connection;
using netutils::ConnectionTable;
using netutils::fail;
using netutils::FileDelivery;
using netutils::Listener;

namespace {

struct Library {
    std::mutex mutex;  // guards every field but `handles`, which has its own lock
    int initCount = 0;
    long nextListenHandle = 1;
    // One listener per I/O thread of each handle, on one port.
    std::map<long, std::vector<std::unique_ptr<Listener>>> listeners;
    // This build serves plain HTTP only (the gateway listens on the loopback interface);
    // the TLS library paths are kept for a build that loads them, and otherwise unused.
    std::string cryptoPath;
    std::string sslPath;
    ConnectionTable handles;
};

Library& library()
{
    // Never destroyed: an owner may still call in from its own threads while the process exits.
    static Library* instance = new Library();
    return *instance;
}

// Runs `body`, turning an exception of the standard library into a failure.
template <class Body>
auto guarded(Body&& body) -> decltype(body())
{
    try {
        return body();
    } catch (const std::bad_alloc&) {
        return fail(NET_ERR_NO_MEMORY);
    } catch (...) {
        // Besides allocation, the standard library fails here only when the system is out of
        // resources (threads, mutexes).
        return fail(NET_ERR_THREAD);
    }
}

bool runsOnCallerThread(const std::vector<std::unique_ptr<Listener>>& group)
{
    for (const auto& listener : group) {
        if (listener->runsOnCallerThread()) {
            return true;
        }
    }
    return false;
}

// A bound shared among `threads` (0 stays "no bound"); rounded up, so that each holds at least one.
uint32_t shareOf(uint32_t bound, int threads)
{
    return bound == 0 ? 0 : (bound + static_cast<uint32_t>(threads) - 1) / static_cast<uint32_t>(threads);
}

int copyHeader(const Connection& connection, const char* name, int nameLength, void* buffer, int size)
{
    if (name == nullptr || nameLength <= 0) {
        return fail(NET_ERR_PARAM);
    }
    const std::string* value = connection.request().findHeader(name, static_cast<size_t>(nameLength));
    if (value == nullptr) {
        return fail(NET_ERR_NOT_FOUND);
    }
    if (value->size() + 1 > static_cast<size_t>(size)) {
        return fail(NET_ERR_BUFFER);
    }
    memcpy(buffer, value->c_str(), value->size() + 1);
    return 0;
}

int copyRequestParam(const Connection& connection, void* buffer, int size)
{
    if (static_cast<size_t>(size) < sizeof(NET_HTTPSERVER_REQUEST_PARAM)) {
        return fail(NET_ERR_BUFFER);
    }
    // Filled aside and copied: the owner's buffer need not be aligned for the int32 field.
    NET_HTTPSERVER_REQUEST_PARAM block;
    connection.request().fillRequestParam(block);
    memcpy(buffer, &block, sizeof(block));
    return 0;
}

}  // namespace

extern "C" {

int NET_UTILS_SetSDKInitCfg(int type, const void* value)
{
    return guarded([&]() -> int {
        if (value == nullptr) {
            return fail(NET_ERR_PARAM);
        }
        Library& lib = library();
        std::lock_guard<std::mutex> lock(lib.mutex);
        switch (type) {
        case NET_SDK_CFG_CRYPTO_PATH: lib.cryptoPath = static_cast<const char*>(value); return 0;
        case NET_SDK_CFG_SSL_PATH: lib.sslPath = static_cast<const char*>(value); return 0;
        default: return fail(NET_ERR_PARAM);
        }
    });
}

int NET_UTILS_Init(void)
{
    Library& lib = library();
    std::lock_guard<std::mutex> lock(lib.mutex);
    ++lib.initCount;
    return 0;
}

int NET_UTILS_Fini(void)
{
    return guarded([&]() -> int {
        Library& lib = library();
        // One listener per I/O thread of each handle, on one port.
        std::map<long, std::vector<std::unique_ptr<Listener>>> listeners;
        bool last = false;
        {
            std::lock_guard<std::mutex> lock(lib.mutex);
            if (lib.initCount == 0) {
                return fail(NET_ERR_NOT_INIT);
            }
            if (lib.initCount == 1) {
                for (const auto& item : lib.listeners) {
                    if (runsOnCallerThread(item.second)) {
                        return fail(NET_ERR_PARAM);  // a callback cannot join its own thread
                    }
                }
                listeners.swap(lib.listeners);
                last = true;
            }
            --lib.initCount;
        }
        // The last user is gone: stop what it left open, outside the lock (joining threads
        // whose callbacks may call in), then forget its handles.
        listeners.clear();
        if (last) {
            std::vector<std::shared_ptr<Connection>> connections = lib.handles.removeAll();
            for (const auto& connection : connections) {
                connection->close(true);
            }
        }
        return 0;
    });
}

int NET_UTILS_GetLastError(void)
{
    return netutils::lastError();
}

long NET_HTTPSERVER_CreateListen(const NET_HTTPSERVER_LISTEN_PARAM* param)
{
    return guarded([&]() -> long {
        if (param == nullptr || param->fnCallback == nullptr) {
            return fail(NET_ERR_PARAM);
        }
        Library& lib = library();
        std::lock_guard<std::mutex> lock(lib.mutex);
        if (lib.initCount == 0) {
            return fail(NET_ERR_NOT_INIT);
        }
        // Each thread of the group holds its share of the bounds; the first one's port is everyone's.
        const int threads = param->byIoThreads > 1 ? param->byIoThreads : 1;
        NET_HTTPSERVER_LISTEN_PARAM share = *param;
        share.dwMaxConnections = shareOf(param->dwMaxConnections, threads);
        share.dwMaxPerAddress = shareOf(param->dwMaxPerAddress, threads);
        if (threads > 1) {
            const int error = Listener::claimPort(share, share.wPort);
            if (error != NET_ERR_NONE) {
                return fail(error);
            }
        }
        std::vector<std::unique_ptr<Listener>> group;
        for (int i = 0; i < threads; ++i) {
            int error = NET_ERR_NONE;
            std::unique_ptr<Listener> listener = Listener::start(share, lib.handles, error);
            if (!listener) {
                return fail(error);  // the group's threads started so far stop with it
            }
            share.wPort = static_cast<uint16_t>(listener->port());
            group.push_back(std::move(listener));
        }
        const long handle = lib.nextListenHandle++;
        lib.listeners.emplace(handle, std::move(group));
        return handle;
    });
}

int NET_HTTPSERVER_DestroyListen(long listenHandle)
{
    return guarded([&]() -> int {
        Library& lib = library();
        std::vector<std::unique_ptr<Listener>> group;
        {
            std::lock_guard<std::mutex> lock(lib.mutex);
            auto it = lib.listeners.find(listenHandle);
            if (it == lib.listeners.end()) {
                return fail(NET_ERR_HANDLE);
            }
            if (runsOnCallerThread(it->second)) {
                return fail(NET_ERR_PARAM);  // a callback cannot join its own thread
            }
            group = std::move(it->second);
            lib.listeners.erase(it);
        }
        // Joined outside the lock: the listeners' last callbacks may call into the library.
        group.clear();
        return 0;
    });
}

int NET_HTTPSERVER_GetListenPort(long listenHandle)
{
    Library& lib = library();
    std::lock_guard<std::mutex> lock(lib.mutex);
    auto it = lib.listeners.find(listenHandle);
    return it == lib.listeners.end() ? fail(NET_ERR_HANDLE) : it->second.front()->port();
}

int NET_HTTPSERVER_GetParamV2(int handle, int type, int subType, const char* name, int nameLength, void* buffer,
                              int size)
{
    if (type != NET_HTTPSERVER_GET_REQUEST || buffer == nullptr || size <= 0) {
        return fail(NET_ERR_PARAM);
    }
    std::shared_ptr<Connection> connection = library().handles.find(handle);
    if (!connection) {
        return fail(NET_ERR_HANDLE);
    }
    // The request stays readable after its connection ended, until the owner
    // closes the handle: an owner that sets up its per-connection state only
    // after the client left must still be able to, so that its one clean-up
    // path (which closes the handle) runs. Failing here made owners give up
    // before learning the handle, and such handles were never closed.
    switch (subType) {
    case NET_HTTPSERVER_SUB_PARAMS: return copyRequestParam(*connection, buffer, size);
    case NET_HTTPSERVER_SUB_HEADER: return copyHeader(*connection, name, nameLength, buffer, size);
    default: return fail(NET_ERR_PARAM);
    }
}

int NET_HTTPSERVER_SetParam(int handle, int kind, const char* name, int nameLength, const void* value, int valueLength)
{
    return guarded([&]() -> int {
        std::shared_ptr<Connection> connection = library().handles.find(handle);
        if (!connection) {
            return fail(NET_ERR_HANDLE);
        }
        const int error = connection->stage(kind, name, nameLength, value, valueLength);
        return error == NET_ERR_NONE ? 0 : fail(error);
    });
}

int NET_HTTPSERVER_Reply(int handle, int flags)
{
    (void)flags;  // no flags are defined; 0 is what every caller passes
    return guarded([&]() -> int {
        std::shared_ptr<Connection> connection = library().handles.find(handle);
        if (!connection) {
            return fail(NET_ERR_HANDLE);
        }
        int written = 0;
        const int error = connection->reply(written);  // allocates only for the first head
        return error == NET_ERR_NONE ? written : fail(error);
    });
}

int NET_HTTPSERVER_SendFile(int handle, const NET_HTTPSERVER_FILE_PARAM* file)
{
    return guarded([&]() -> int {
        if (file == nullptr || file->iFd < 0 || file->llOffset < 0 || file->llLength < 0 || file->fnDone == nullptr) {
            return fail(NET_ERR_PARAM);
        }
        std::shared_ptr<Connection> connection = library().handles.find(handle);
        if (!connection) {
            return fail(NET_ERR_HANDLE);
        }
        // Made first: once the connection is given to the file, nothing may fail but the listener's end.
        auto delivery = std::make_unique<FileDelivery>(handle, *file, connection->sendTimeoutMs());
        int64_t bodyLeft = -1;
        const int error = connection->beginFile(bodyLeft);
        if (error != NET_ERR_NONE) {
            delivery->giveBack();
            return fail(error);
        }
        delivery->limitBody(bodyLeft);
        if (!connection->postFile(delivery)) {
            delivery->giveBack();
            return fail(NET_ERR_CLOSED);  // the listener has stopped: its connections have ended
        }
        return 0;
    });
}

int NET_HTTPSERVER_Abort(int handle)
{
    std::shared_ptr<Connection> connection = library().handles.find(handle);
    if (!connection) {
        return fail(NET_ERR_HANDLE);
    }
    connection->abort();
    return 0;
}

int NET_HTTPSERVER_Close(int handle, int flush)
{
    std::shared_ptr<Connection> connection = library().handles.remove(handle);
    if (!connection) {
        return fail(NET_ERR_HANDLE);  // harmless: closed before, or never given out
    }
    // A Reply still running on another thread holds its own reference and returns -1;
    // the socket closes when the last reference goes.
    connection->close(flush != 0);
    return 0;
}

}  // extern "C"
