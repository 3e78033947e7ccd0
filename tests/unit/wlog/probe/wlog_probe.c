/* One line per level, for the tests of how the environment (WLOG_LEVEL,
 * WLOG_FILE) configures a fresh process. */
#include <wlog/wlog.h>

int main(void)
{
    for (int level = WLOG_DEBUG; level <= WLOG_ERROR; ++level) {
        wlog_format(level, "PROBE", "line %d", level);
    }
    return 0;
}
