// Internal hooks of the notification center (include/gatewise/notifications.h) for tests.
#pragma once

namespace gw::notify {

// Drops the observing connection as if the bus had gone away; observers stay registered and are
// installed again by the next drain, which may reconnect at once.
void disconnectForTesting();

}  // namespace gw::notify
