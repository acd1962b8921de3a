//  Replaces the std::terminate handler in the client library and in each module, except in sanitizer builds. The
//  default handler prints the name of the exception's type; its code to decode this name adds about 55 kB.
#include <cstdlib>
#include <exception>

namespace __cxxabiv1 {

//  libstdc++ has a variable of this name; its definition is not linked if the name is already defined.
extern std::terminate_handler __terminate_handler;        // NOLINT(bugprone-reserved-identifier)
std::terminate_handler __terminate_handler = std::abort;  // NOLINT(bugprone-reserved-identifier)

}  // namespace __cxxabiv1
