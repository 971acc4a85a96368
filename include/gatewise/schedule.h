// The time-limit model: times of day and ranges, the local week, curfews, allowances and the texts
// that describe them. Each piece has its own header below gatewise/schedule/; this one brings in
// all of them.
#pragma once

#include <gatewise/schedule/allowance.h>
#include <gatewise/schedule/calendar.h>
#include <gatewise/schedule/curfews.h>
#include <gatewise/schedule/text.h>
#include <gatewise/schedule/time_of_day.h>
