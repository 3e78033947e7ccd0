/*
 * Logging library. One call writes one line:
 *   "2026-11-23 09:01:42.123456 <level> <module> <text>\n"
 * By default to standard error at level 3 (info) and above. The environment
 * changes that: WLOG_LEVEL (2..5) sets the threshold, WLOG_FILE (a path) appends
 * to that file instead. A host may install its own output function.
 * Levels: 2 debug, 3 info, 4 warn, 5 error.
 */
#ifndef WLOG_WLOG_H
#define WLOG_WLOG_H

#ifdef __cplusplus
extern "C" {
#endif

#define WLOG_API __attribute__((visibility("default")))

enum { WLOG_DEBUG = 2, WLOG_INFO = 3, WLOG_WARN = 4, WLOG_ERROR = 5 };

/* Formats and writes one line when level passes the threshold; a filtered call
 * costs one comparison and formats nothing. Thread-safe; lines never interleave. */
WLOG_API void wlog_format(int level, const char* module, const char* format, ...) __attribute__((format(printf, 3, 4)));

/* Output function of a host: receives the formatted text of each line that
 * passes the threshold (without time stamp and newline). Null restores the
 * built-in writer. */
typedef void (*wlog_output_fn)(int level, const char* module, const char* text, void* user);
WLOG_API void wlog_set_output(wlog_output_fn fn, void* user);

/* Threshold: lines below it are dropped. Returns the previous threshold. */
WLOG_API int wlog_set_level(int level);
WLOG_API int wlog_get_level(void);

/* True when a line of this level would be written (lets callers skip work). */
WLOG_API int wlog_enabled(int level);

#ifdef __cplusplus
}
#endif

#endif /* WLOG_WLOG_H */
