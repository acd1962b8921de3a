//  The handler of std::terminate in the client library and in each module. The one of the run-time library would print the
//  name of the exception's type, for which it brings 100 kB of code to decode it.
#include <cstdlib>
#include <exception>

namespace __cxxabiv1 {

extern std::terminate_handler __terminate_handler;
std::terminate_handler __terminate_handler = std::abort;

}  // namespace __cxxabiv1
