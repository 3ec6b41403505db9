/*
 * The figures for monitoring.
 */
#include "panel/metrics.h"

#include <filesystem>

#include <prometheus/text_serializer.h>

using prometheus::ClientMetric;
using prometheus::MetricFamily;
using prometheus::MetricType;

namespace
{
struct FIGURE_S {
    const char *pName;
    const char *pHelp;
    MetricType eType;
    const char *pPlace; /* in the guard's state */
    double f64Factor;   /* into the unit of the name */
};

constexpr MetricType GAUGE = MetricType::Gauge;
constexpr MetricType COUNTER = MetricType::Counter;

constexpr FIGURE_S kFigures[] = {
    {"mv3300_input_width_pixels", "Width of the input picture.", GAUGE, "/input/width", 1},
    {"mv3300_input_height_pixels", "Height of the input picture.", GAUGE, "/input/height", 1},
    {"mv3300_input_pictures_per_second", "Announced picture rate of the input.", GAUGE,
     "/input/fps", 1},
    {"mv3300_stream_packets_total", "RTP packets of the stream.", COUNTER, "/stream/packets", 1},
    {"mv3300_stream_bytes_total", "Bytes of the stream.", COUNTER, "/stream/bytes", 1},
    {"mv3300_stream_lost_packets_total", "Gaps in the RTP sequence numbers.", COUNTER,
     "/stream/lost", 1},
    {"mv3300_stream_pictures_total", "Pictures of the stream.", COUNTER, "/stream/pictures", 1},
    {"mv3300_stream_pictures_per_second", "Picture rate over the last second.", GAUGE,
     "/stream/pictures_per_second", 1},
    {"mv3300_stream_bytes_per_second", "Rate of the stream over the last second.", GAUGE,
     "/stream/kbit_per_second", 125},
    {"mv3300_stream_keyframe_interval_pictures", "Pictures from one key frame to the next.", GAUGE,
     "/stream/keyframe_interval", 1},
    {"mv3300_stream_last_packet_age_seconds", "Time since the last packet.", GAUGE,
     "/stream/last_packet_age", 1},
    {"mv3300_relay_forwarded_packets_total", "Packets passed on to the preview.", COUNTER,
     "/relay/forwarded", 1},
    {"mv3300_relay_thinned_packets_total", "Packets held back from the preview.", COUNTER,
     "/relay/thinned", 1},
    {"mv3300_relay_dropped_packets_total", "Packets the relay could not pass on.", COUNTER,
     "/relay/dropped", 1},
    {"mv3300_relay_refused_packets_total", "Packets nobody listened for.", COUNTER,
     "/relay/refused", 1},
    {"mv3300_daemon_uptime_seconds", "Age of the daemon's process.", GAUGE, "/daemon/uptime", 1},
    {"mv3300_daemon_cpu_ratio", "Processors the daemon uses, 1 being one of them.", GAUGE,
     "/daemon/cpu_percent", 0.01},
    {"mv3300_daemon_resident_memory_bytes", "Memory of the daemon.", GAUGE, "/daemon/memory_bytes",
     1},
    {"mv3300_guard_announcements_total", "Timings the guard announced.", COUNTER,
     "/acts/announcements", 1},
    {"mv3300_guard_restarts_total", "Streams the guard started again.", COUNTER, "/acts/restarts",
     1},
    {"mv3300_guard_failed_restarts_total", "Restarts that brought no stream.", COUNTER,
     "/acts/failed_restarts", 1},
    {"mv3300_guard_restart_budget", "Restarts the guard may make in an hour.", GAUGE,
     "/acts/budget", 1},
    {"mv3300_guard_restart_budget_left", "Restarts left of this hour's.", GAUGE,
     "/acts/budget_left", 1},
};

ClientMetric Sample(MetricType i_eType, double i_f64Value)
{
    ClientMetric objMetric;
    (i_eType == COUNTER ? objMetric.counter.value : objMetric.gauge.value) = i_f64Value;
    return objMetric;
}

MetricFamily Single(const char *i_pName, const char *i_pHelp, MetricType i_eType, double i_f64Value)
{
    return {i_pName, i_pHelp, i_eType, {Sample(i_eType, i_f64Value)}};
}

/* One sample per condition, 1 for the one that holds, so that an alert can name its own. */
MetricFamily Conditions(const std::string &i_strHolds)
{
    MetricFamily objFamily = {
        "mv3300_condition", "The condition of the box: 1 for the one that holds.", GAUGE, {}};
    for (const std::string &strCondition : CONDITIONS) {
        ClientMetric objMetric = Sample(GAUGE, strCondition == i_strHolds ? 1 : 0);
        objMetric.label = {{"condition", strCondition}};
        objFamily.metric.push_back(objMetric);
    }
    return objFamily;
}

MetricFamily BuildInformation(const std::string &i_strGuard)
{
    ClientMetric objMetric = Sample(GAUGE, 1);
    objMetric.label = {{"panel", MV3300_VERSION}, {"guard", i_strGuard}};
    return {"mv3300_build_info", "Versions; the value is always 1.", GAUGE, {objMetric}};
}

void AddDisks(std::vector<MetricFamily> &io_objFamilies)
{
    MetricFamily objFree = {
        "mv3300_disk_free_bytes", "Room left for everybody in a folder of the box.", GAUGE, {}};
    MetricFamily objSize = {"mv3300_disk_size_bytes", "Size of the same.", GAUGE, {}};
    for (const char *pFolder : {"/config", "/tmp", "/run"}) {
        std::error_code objError;
        const std::filesystem::space_info stSpace = std::filesystem::space(pFolder, objError);
        if (objError) {
            continue;
        }
        objFree.metric.push_back(Sample(GAUGE, static_cast<double>(stSpace.available)));
        objFree.metric.back().label = {{"folder", pFolder}};
        objSize.metric.push_back(Sample(GAUGE, static_cast<double>(stSpace.capacity)));
        objSize.metric.back().label = {{"folder", pFolder}};
    }
    io_objFamilies.push_back(objFree);
    io_objFamilies.push_back(objSize);
}
} // namespace

const std::vector<std::string> CONDITIONS = {
    "no-guard", "no-daemon", "input-unknown", "no-signal",       "interlaced",    "disabled",
    "starting", "failed",    "stalled",       "preview-stalled", "relay-refused", "streaming"};

const prometheus::Histogram::BucketBoundaries INTERVAL_BOUNDS = {
    0.005, 0.010, 0.015, 0.018, 0.022, 0.030, 0.037, 0.045, 0.060, 0.100, 0.250, 0.500, 1, 2, 5};

std::string FormatMetrics(const SEEN_STATE_S &i_stState, const PANEL_FIGURES_S &i_stFigures,
                          const prometheus::Histogram &i_objIntervals)
{
    std::vector<MetricFamily> objFamilies = {
        BuildInformation(i_stState.String("/version")),
        Conditions(i_stState.Condition()),
        Single("mv3300_panel_viewers", "Viewers of the live picture.", GAUGE,
               i_stFigures.u32Viewers),
        Single("mv3300_panel_viewers_total", "Viewers since the panel's start.", COUNTER,
               static_cast<double>(i_stFigures.u64Viewed)),
        Single("mv3300_panel_requests_total", "Requests answered since the panel's start.", COUNTER,
               static_cast<double>(i_stFigures.u64Requests)),
    };
    /* What is unknown is absent, not zero. */
    for (const FIGURE_S &stFigure : kFigures) {
        const std::optional<double> objValue = i_stState.Number(stFigure.pPlace);
        if (objValue) {
            objFamilies.push_back(Single(stFigure.pName, stFigure.pHelp, stFigure.eType,
                                         *objValue * stFigure.f64Factor));
        }
    }
    if (i_stFigures.f64PreviewTime > 0) {
        objFamilies.push_back(Single("mv3300_preview_timestamp_seconds",
                                     "When the newest preview picture was written.", GAUGE,
                                     i_stFigures.f64PreviewTime));
    }
    objFamilies.push_back({"mv3300_stream_picture_interval_seconds",
                           "Time from one picture's last packet to the next one's.",
                           MetricType::Histogram,
                           {i_objIntervals.Collect()}});
    AddDisks(objFamilies);
    return prometheus::TextSerializer().Serialize(objFamilies);
}
