#include "IPCS/MainLoop.h"

#include <dbus/dbus-glib-lowlevel.h>

#include <algorithm>
#include <condition_variable>
#include <memory>
#include <mutex>

namespace ipcs {
namespace {

dbus_int32_t contextSlot = -1;

void ReleaseContext(void* context) { g_main_context_unref(static_cast<GMainContext*>(context)); }

/// Work that exactly one of two threads does, or none.
struct Job {
  std::mutex mutex;
  std::condition_variable finished;
  std::function<void()> work;
  bool taken = false;
  bool done = false;

  void Run() {
    {
      const std::lock_guard<std::mutex> lock(mutex);
      if (taken) {
        return;
      }
      taken = true;
    }
    work();
    const std::lock_guard<std::mutex> lock(mutex);
    done = true;
    finished.notify_all();
  }
};

using JobPtr = std::shared_ptr<Job>;

/// Orders what passes through GLib, whose own locks a race detector does not see.
std::mutex handOver;

gpointer Hand(const JobPtr& job) {
  const std::lock_guard<std::mutex> lock(handOver);
  return new JobPtr(job);
}

JobPtr Handed(gpointer job) {
  const std::lock_guard<std::mutex> lock(handOver);
  return *static_cast<JobPtr*>(job);
}

gboolean OnMainLoop(gpointer job) {
  Handed(job)->Run();
  return G_SOURCE_REMOVE;
}

void ReleaseJob(gpointer job) {
  const std::lock_guard<std::mutex> lock(handOver);
  delete static_cast<JobPtr*>(job);
}

/// Waits for the thread that runs `context` to do the job, or does it here as soon as none does.
bool Await(GMainContext* context, Job& job, std::chrono::milliseconds limit) {
  const auto deadline = std::chrono::steady_clock::now() + limit;
  for (;;) {
    if (g_main_context_acquire(context) != FALSE) {
      job.Run();
      g_main_context_release(context);
    }
    std::unique_lock<std::mutex> lock(job.mutex);
    // A loop that ends says nothing, so look now and then whether it still has its context.
    const auto look = std::chrono::steady_clock::now() + std::chrono::milliseconds(10);
    if (job.finished.wait_until(lock, std::min(look, deadline), [&job] { return job.done; })) {
      return true;
    }
    if (std::chrono::steady_clock::now() >= deadline && !job.taken) {
      job.taken = true;
      return false;
    }
  }
}

}  // namespace

void AttachToMainLoop(DBusConnection* connection, GMainContext* context) {
  if (context == nullptr) {
    context = g_main_context_default();
  }
  if (dbus_connection_allocate_data_slot(&contextSlot) != FALSE) {
    dbus_connection_set_data(connection, contextSlot, g_main_context_ref(context), &ReleaseContext);
  }
  dbus_connection_setup_with_g_main(connection, context);
}

bool RunInMainLoop(DBusConnection* connection, std::chrono::milliseconds limit,
                   const std::function<void()>& work) {
  auto* context =
      contextSlot < 0
          ? nullptr
          : static_cast<GMainContext*>(dbus_connection_get_data(connection, contextSlot));
  if (context == nullptr) {
    work();
    return true;
  }
  g_main_context_ref(context);
  const auto job = std::make_shared<Job>();
  job->work = work;

  GSource* source = g_idle_source_new();
  g_source_set_priority(source, G_PRIORITY_DEFAULT);
  g_source_set_callback(source, &OnMainLoop, Hand(job), &ReleaseJob);
  g_source_attach(source, context);
  const bool done = Await(context, *job, limit);
  g_source_destroy(source);
  g_source_unref(source);
  g_main_context_unref(context);
  return done;
}

}  // namespace ipcs
