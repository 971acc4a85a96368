// The web-filter service's answers: "_WFMIGEvalutePageContent" and "_WFMIGGetPageDump" served from
// one word list.
//
// Each request carries the page's bytes and its page-description dictionary as an XML property
// list. An evaluation answers an XML dictionary {"WFFilterWantsToBlock": bool,
// "WFFilterRestrictedScoreKey": score, "WFFilterDescriptionKey": text, "WFURL": the page's URL
// when given}, plus "WFDebugMessage" (the page dump) when the description asks for
// "WFDebugPage". A page dump answers UTF-8 text. A description that is not a dictionary, or
// larger than kMaxDescriptionBytes, is answered with the error form (-304).
#pragma once

#include "ipc/dispatcher.h"
#include "word_list.h"

namespace gw::webfilter {

inline constexpr std::size_t kMaxDescriptionBytes = std::size_t(1) << 20;

// Registers both routines on dispatcher; list must outlive it.
void serveFilterRoutines(ipc::Dispatcher& dispatcher, const WordList& list);

}  // namespace gw::webfilter
