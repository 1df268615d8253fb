// The metric reports of plug-ins, handed to whoever collects them (the
// server sets the sink before its first session; nothing else does).
#include <atomic>

#include "c_edge.h"
#include "tarvex_gridftp_server.h"

namespace {

// Set once before any plug-in runs, read by every report: a pair that is
// never torn, because the context is stored before the sink is published.
std::atomic<const tarvex_gfs_metrics_sink_t *> sink{nullptr};
void *sink_ctx = nullptr;

} // namespace

extern "C" void tarvex_gfs_metrics_set_sink(const tarvex_gfs_metrics_sink_t *s, void *ctx)
{
    sink.store(nullptr, std::memory_order_release);
    sink_ctx = ctx;
    sink.store(s, std::memory_order_release);
}

extern "C" void tarvex_gridftp_server_metric_add(const char *name, const char *labels,
                                                 double amount)
{
    const tarvex_gfs_metrics_sink_t *s = sink.load(std::memory_order_acquire);
    if (s == nullptr || s->add == nullptr || name == nullptr)
        return;
    tarvex_gfs_internal::guarded([&] { s->add(sink_ctx, name, labels ? labels : "", amount); });
}

extern "C" void tarvex_gridftp_server_metric_observe(const char *name, const char *labels,
                                                     double value)
{
    const tarvex_gfs_metrics_sink_t *s = sink.load(std::memory_order_acquire);
    if (s == nullptr || s->observe == nullptr || name == nullptr)
        return;
    tarvex_gfs_internal::guarded(
        [&] { s->observe(sink_ctx, name, labels ? labels : "", value); });
}
