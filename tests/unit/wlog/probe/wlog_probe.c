/* Writes one line per level, so that a test can check how the environment
 * (WLOG_LEVEL, WLOG_FILE) configures a fresh process. */
#include <wlog/wlog.h>

int main(void)
{
    wlog_format(WLOG_DEBUG, "PROBEdebug", "debug line %d", 2);
    wlog_format(WLOG_INFO, "PROBEinfo", "info line %d", 3);
    wlog_format(WLOG_WARN, "PROBEwarn", "warn line %d", 4);
    wlog_format(WLOG_ERROR, "PROBEerror", "error line %d", 5);
    return 0;
}
