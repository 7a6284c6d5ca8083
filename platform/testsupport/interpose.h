#ifndef XK_TESTSUPPORT_INTERPOSE_H
#define XK_TESTSUPPORT_INTERPOSE_H

#include <ctime>
#include <string>

namespace xk {
namespace test {
namespace interpose {

// Manual wall clock for time(); off means the real clock.
void SetManualTime(bool on, std::time_t now);
std::time_t ManualTime();
void AddManualMilliseconds(long long milliseconds);

// Where fopen of the fixed key file path lands; empty: the path itself.
void SetKeyFileRedirect(const std::string& path);
std::string KeyFileRedirect();

}  // namespace interpose
}  // namespace test
}  // namespace xk

#endif
