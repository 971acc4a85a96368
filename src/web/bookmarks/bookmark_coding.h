// Keyed coding of bookmarks: "GWLumewayBookmark" archives its node dictionary under "dictionary",
// "GWLumewayBookmarkFolder" also its child objects under "children".
#pragma once

namespace gw {

// Registers both coders with the archive module (idempotent).
void registerBookmarkCoders();

}  // namespace gw
