// The plug-in's log convention: every line is one wlog_format call with the
// level, the level's one-piece tag, and a format that starts with the function
// name and source line (and, for errors and warnings, the module error code).
#ifndef HTTPWRAPPER_FRAME_LOG_H
#define HTTPWRAPPER_FRAME_LOG_H

#include <wlog/wlog.h>

#define HPW_LOGE(code, fmt, ...)                                                                                   \
    wlog_format(5, "STREAMerror", "[%s(%d)] [0x%08x] - " fmt, __FUNCTION__, __LINE__, static_cast<unsigned>(code), \
                ##__VA_ARGS__)
#define HPW_LOGW(code, fmt, ...)                                                                                  \
    wlog_format(4, "STREAMwarn", "[%s(%d)] [0x%08x] - " fmt, __FUNCTION__, __LINE__, static_cast<unsigned>(code), \
                ##__VA_ARGS__)
#define HPW_LOGI(fmt, ...) wlog_format(3, "STREAMinfo", "[%s(%d)] - " fmt, __FUNCTION__, __LINE__, ##__VA_ARGS__)
#define HPW_LOGD(fmt, ...) wlog_format(2, "STREAMdebug", "[%s(%d)] - " fmt, __FUNCTION__, __LINE__, ##__VA_ARGS__)
// As above, naming the step the line belongs to rather than the helper that writes it.
#define HPW_LOGE_IN(function, code, fmt, ...)                                                                  \
    wlog_format(5, "STREAMerror", "[%s(%d)] [0x%08x] - " fmt, function, __LINE__, static_cast<unsigned>(code), \
                ##__VA_ARGS__)
#define HPW_LOGD_IN(function, fmt, ...) \
    wlog_format(2, "STREAMdebug", "[%s(%d)] - " fmt, function, __LINE__, ##__VA_ARGS__)

#endif  // HTTPWRAPPER_FRAME_LOG_H
