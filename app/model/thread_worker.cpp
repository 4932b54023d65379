#include "app/model/thread_worker.h"

namespace corvane {

ThreadWorker::~ThreadWorker() {
  std::list<Job> jobs;
  {
    std::lock_guard lock(mutex_);
    jobs.swap(jobs_);
  }
  for (auto& job : jobs) job.thread.join();
}

void ThreadWorker::reapFinished() {
  std::list<Job> done;
  {
    std::lock_guard lock(mutex_);
    for (auto it = jobs_.begin(); it != jobs_.end();) {
      auto next = std::next(it);
      if (it->finished) done.splice(done.end(), jobs_, it);
      it = next;
    }
  }
  for (auto& job : done) job.thread.join();
}

void ThreadWorker::run(std::function<void()> work) {
  reapFinished();
  std::lock_guard lock(mutex_);
  Job& job = jobs_.emplace_back();
  job.thread = std::thread([this, &job, work = std::move(work)] {
    work();
    std::lock_guard done(mutex_);
    job.finished = true;
  });
}

}  // namespace corvane
