// No questions to the name service.
//
// The database client asks for its TCP port when it starts (getservbyname(3)), although the server
// is reached by its Unix socket. Such a question loads libraries, may go over the network and wait
// there (nsswitch.conf(5)), and in the GNU C library ends the process when memory runs out in it.
// The definition here comes before the C library's and says that there is no such service; the
// client then takes its compiled-in port, which is not used either.

#include <netdb.h>

extern "C" servent* getservbyname(const char* /*name*/, const char* /*protocol*/) {
    return nullptr;
}
