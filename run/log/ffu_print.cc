// The console logger. The eMMC and UFS updates call it; run control writes to the system log
// instead. A message that cannot be written is lost; the update goes on.
#include "run/log/ffu_print.h"

#include "platform/bounded.h"

#include <cstdarg>
#include <cstdio>
#include <ctime>
#include <sys/time.h>

int ffu_print(const char* format, ...) {
    char prefix[1024] = {};
    timeval now = {};
    (void)gettimeofday(&now, nullptr);
    const tm* ptm = localtime(&now.tv_sec);
    if (ptm == nullptr) {
        printf("%s,line:%d,NULL == ptm\n", __func__, 42);
        return 0;
    }
    const int milliseconds = static_cast<int>(now.tv_usec) / 1000;
    (void)snprintf_s(prefix, sizeof(prefix), sizeof(prefix) - 1,
                     "[%.4d-%.2d-%.2d %.2d:%.2d:%.2d %.3d]", ptm->tm_year + 1900, ptm->tm_mon + 1,
                     ptm->tm_mday, ptm->tm_hour, ptm->tm_min, ptm->tm_sec, milliseconds);
    printf("%s ", prefix);
    va_list args;
    va_start(args, format);
    const int count = vfprintf(stdout, format, args);
    va_end(args);
    return count;
}
