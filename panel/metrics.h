/*
 * The figures for monitoring, in the text format of Prometheus (version 0.0.4). They come from what
 * the guard publishes and from what the panel counts itself; nothing is asked of the daemon.
 */
#pragma once

#include <string>
#include <vector>

#include <prometheus/histogram.h>

#include "panel/state.h"

struct PANEL_FIGURES_S {
    UInt32 u32Viewers = 0;
    UInt64 u64Viewed = 0;      /* viewers since the start */
    UInt64 u64Requests = 0;    /* answered since the start */
    double f64PreviewTime = 0; /* seconds since the epoch; 0 before the first picture */
};

/* The conditions of the guard, and the panel's own "no-guard". */
extern const std::vector<std::string> CONDITIONS;

/* Bounds of the intervals between two pictures, in seconds: those of the usual rates, between
 * them, and what an eye sees as a standstill. */
extern const prometheus::Histogram::BucketBoundaries INTERVAL_BOUNDS;

std::string FormatMetrics(const SEEN_STATE_S &i_stState, const PANEL_FIGURES_S &i_stFigures,
                          const prometheus::Histogram &i_objIntervals);
