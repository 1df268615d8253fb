#include "plugin_thread.h"

namespace tarvex_server {

PluginThread::PluginThread() : thread_([this] { run(); }) {}

PluginThread::~PluginThread()
{
    {
        std::lock_guard lock(mu_);
        stop_ = true;
    }
    cv_.notify_one();
    thread_.join();
}

void PluginThread::post(std::function<void()> job)
{
    {
        std::lock_guard lock(mu_);
        jobs_.push_back(std::move(job));
    }
    cv_.notify_one();
}

void PluginThread::run()
{
    for (;;) {
        std::function<void()> job;
        {
            std::unique_lock lock(mu_);
            cv_.wait(lock, [this] { return stop_ || !jobs_.empty(); });
            if (jobs_.empty())
                return;
            job = std::move(jobs_.front());
            jobs_.pop_front();
        }
        job();
    }
}

} // namespace tarvex_server
