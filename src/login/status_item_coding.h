// The keyed-archive coder of GWStatusItem (class "GWStatusItem", superclass "NSObject").
//
// Fields are written in the order itemKind, statusKind, itemCreationDate, expirationDate,
// itemName, pid (a number), itemID, limit (the limit item's stored dictionary, only when there is
// one). Reading takes any subset of the keys: a missing field stays empty; a field of the wrong
// type fails the archive; a stored limit that the limit item refuses is logged and left out.
#pragma once

namespace gw {

// Registers the coder; called once when the library is loaded, harmless to call again.
void registerStatusItemCoder();

}  // namespace gw
