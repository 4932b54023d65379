// ThreadWorker: a BackgroundWorker that gives each job a thread of its own.
// Jobs are few and long (a sync cycle, a network call, a prompt), so a pool
// would buy nothing. The destructor waits for every job: the model asks a
// running cycle to stop first, so quitting never cuts a send in half.
//
// run() may be called from any thread.
#pragma once

#include <functional>
#include <list>
#include <mutex>
#include <thread>

#include "app/model/main_scheduler.h"

namespace corvane {

class ThreadWorker final : public BackgroundWorker {
 public:
  ThreadWorker() = default;
  ~ThreadWorker() override;

  void run(std::function<void()> work) override;

 private:
  // Joins the threads whose jobs have ended.
  void reapFinished();

  struct Job {
    std::thread thread;
    bool finished = false;
  };
  std::mutex mutex_;
  std::list<Job> jobs_;
};

}  // namespace corvane
