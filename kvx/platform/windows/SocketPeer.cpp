#include "kvx/platform/SocketPeer.h"

bool kvx::HasPeerEnded(SOCKET hSocket)
{
    WSAPOLLFD state{hSocket, POLLRDNORM, 0};
    return WSAPoll(&state, 1, 0) == 1 && (state.revents & (POLLHUP | POLLERR)) != 0;
}
