// The thread on which a session calls its storage plug-in.
//
// Plug-in functions may block for as long as their storage takes (a REST
// request, a whole transfer), so they never run on the thread that watches
// the control connection: that one must stay free to see ABOR.  One thread
// per session also means the plug-in's functions never overlap.
#pragma once

#include <condition_variable>
#include <deque>
#include <functional>
#include <mutex>
#include <thread>

namespace tarvex_server {

class PluginThread {
public:
    PluginThread();
    ~PluginThread(); // runs what is queued, then ends the thread
    void post(std::function<void()> job);

private:
    void run();

    std::mutex mu_;
    std::condition_variable cv_;
    std::deque<std::function<void()>> jobs_;
    bool stop_ = false;
    std::thread thread_;
};

} // namespace tarvex_server
