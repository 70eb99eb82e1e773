#include "at/socket_service.h"

namespace tavrik::sim {

void SocketService::stand(const Standing &standing) {
    if (standing.stop && (!standing_.stop || server_.listening()))
        stop();
    bool listen = !standing.stop && !standing.refuse;
    if (!listen)
        server_.stop_listening();
    else if (!server_.listening())
        server_.listen();
    if (standing.freeze != standing_.freeze)
        server_.freeze(standing.freeze);
    if (standing.flood != standing_.flood)
        server_.flood(standing.flood);
    standing_ = standing;
}

} // namespace tavrik::sim
