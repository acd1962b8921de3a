//  The handler of std::terminate in the client library and in each module. The one of the run-time library would print the
//  name of the exception's type, for which it brings 100 kB of code to decode it.
#include <cstdlib>
#include <exception>

namespace __cxxabiv1 {

//  The name is that of libstdc++, whose own definition is then not linked.
extern std::terminate_handler __terminate_handler;        // NOLINT(bugprone-reserved-identifier)
std::terminate_handler __terminate_handler = std::abort;  // NOLINT(bugprone-reserved-identifier)

}  // namespace __cxxabiv1
