// A host whose main thread runs a GLib main loop, not QVCore's: the core's
// main run loop is a GSource that wakes on its descriptor and its next timer.
// Usage: qvcore-glib-host <collection URL>. Posts one message from a task on
// the core's loop, flushes, and exits 0 once the flush cycle has ended.
#include <glib.h>

#include <chrono>
#include <cstdio>
#include <memory>
#include <string>

#include "qvcore/core/QVCore.h"
#include "qvcore/model/QVMessage.h"
#include "qvcore/platform/QVClassRegistry.h"
#include "qvcore/platform/QVRunLoop.h"
#include "qvcore/queue/QVQueueService.h"

namespace {

using namespace std::chrono_literals;

class GlibHostModule : public qv::QVLifecycleObject {
 public:
  static std::shared_ptr<GlibHostModule> sharedInstance() {
    static auto instance = std::make_shared<GlibHostModule>();
    return instance;
  }
  std::string className() const override { return "GlibHostModule"; }
  bool enable() override { return enabled_ = true; }
  bool disable() override { return !(enabled_ = false); }
  bool isEnabled() const override { return enabled_; }
  std::string settingsBundlePath() const override { return ""; }

 private:
  bool enabled_ = false;
};

QV_REGISTER_MODULE(GlibHostModule);

// The core's main run loop as a GLib source.
struct RunLoopSource {
  GSource source;
  qv::QVRunLoop* loop;
  gpointer tag;
};

gboolean prepare(GSource* source, gint* timeout) {
  *timeout = reinterpret_cast<RunLoopSource*>(source)->loop->pollTimeoutMillis();
  return *timeout == 0;
}

gboolean check(GSource* source) {
  auto* self = reinterpret_cast<RunLoopSource*>(source);
  return (g_source_query_unix_fd(source, self->tag) & G_IO_IN) ||
         self->loop->pollTimeoutMillis() == 0;
}

gboolean dispatch(GSource* source, GSourceFunc, gpointer) {
  reinterpret_cast<RunLoopSource*>(source)->loop->dispatchPending();
  return G_SOURCE_CONTINUE;
}

GSourceFuncs sourceFuncs = {prepare, check, dispatch, nullptr, nullptr, nullptr};

void attachRunLoop(qv::QVRunLoop& loop) {
  GSource* source = g_source_new(&sourceFuncs, sizeof(RunLoopSource));
  auto* self = reinterpret_cast<RunLoopSource*>(source);
  self->loop = &loop;
  self->tag = g_source_add_unix_fd(source, loop.pollDescriptor(), G_IO_IN);
  g_source_attach(source, nullptr);
  g_source_unref(source);
}

// Checks on the core's own loop, every 20 ms, whether the flush has ended.
void quitWhenFlushed(GMainLoop* glib) {
  if (qv::QVQueueService::sharedInstance()->completedFlushCycles() > 0) {
    g_main_loop_quit(glib);
    return;
  }
  qv::QVRunLoop::main().postAfter(20ms, [glib] { quitWhenFlushed(glib); });
}

}  // namespace

int main(int argc, char** argv) {
  if (argc != 2) {
    std::fprintf(stderr, "usage: %s <collection URL>\n", argv[0]);
    return 2;
  }
  auto core = qv::QVCore::sharedInstance();
  core->updateConfigForModuleNameWithData("GlibHostModule", {{"PostMessageUrl", argv[1]}});
  if (!core->enable() || !core->enableModule("GlibHostModule")) return 3;

  GMainLoop* glib = g_main_loop_new(nullptr, FALSE);
  attachRunLoop(qv::QVRunLoop::main());
  qv::QVRunLoop::main().postAfter(50ms, [core, glib] {
    auto message = std::make_shared<qv::QVMessage>();
    message->setOffset(77);
    message->setLogLevel(1);
    core->postMessageForModuleName(message, "GlibHostModule");
    core->flushQueues();
    quitWhenFlushed(glib);
  });
  // A bound, so that a loop that is never driven still ends.
  static bool timedOut = false;
  g_timeout_add_seconds(
      30,
      [](gpointer loop) -> gboolean {
        timedOut = true;
        g_main_loop_quit(static_cast<GMainLoop*>(loop));
        return G_SOURCE_REMOVE;
      },
      glib);
  g_main_loop_run(glib);
  g_main_loop_unref(glib);
  if (timedOut) {
    std::fputs("glib-host: the flush did not end\n", stderr);
    return 1;
  }
  std::puts("glib-host: flushed");
  return 0;
}
