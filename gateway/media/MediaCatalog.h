// The recordings the gateway serves now. A SIGHUP reads the indexes again into a
// new MediaLibrary and puts it here whole; whoever took the previous one keeps
// it, unchanged, for as long as it holds it. A download in progress holds its
// own copy of its recording and its open file, so a reload never touches it.
#ifndef GATEWAY_MEDIA_CATALOG_H
#define GATEWAY_MEDIA_CATALOG_H

#include <memory>
#include <mutex>

#include "media/MediaLibrary.h"

class MediaCatalog {
public:
    explicit MediaCatalog(std::shared_ptr<const MediaLibrary> library = std::make_shared<const MediaLibrary>())
        : m_library(std::move(library))
    {
    }

    std::shared_ptr<const MediaLibrary> current() const
    {
        std::lock_guard<std::mutex> guard(m_lock);
        return m_library;
    }

    void replace(std::shared_ptr<const MediaLibrary> library)
    {
        std::lock_guard<std::mutex> guard(m_lock);
        m_library.swap(library);
    }  // the previous library is released here, outside the lock, when nobody else holds it

private:
    mutable std::mutex m_lock;  // guards the pointer, not the library, which never changes
    std::shared_ptr<const MediaLibrary> m_library;
};

#endif  // GATEWAY_MEDIA_CATALOG_H
