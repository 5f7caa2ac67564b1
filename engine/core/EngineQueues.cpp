#include "core/EngineQueues.h"

#include <cstdlib>

#include "ipc/RequestQueueLayout.h"

namespace armengine {

namespace {

bool refuse(std::string* why, std::string sentence) {
  *why = std::move(sentence);
  return false;
}

std::string prefixOf(const EngineOptions& options) {
  const char* inherited = std::getenv("ARM_AGENT_PREFIX");
  return options.prefix.value_or(inherited != nullptr ? inherited : "");
}

bool checkPrefix(const std::string& prefix, std::string* why) {
  if (isPrefix(prefix)) return true;
  return refuse(
      why, "a prefix has at most " + std::to_string(LONGEST_PREFIX) + " characters and no '/'");
}

bool checkCapacities(const EngineOptions& options, std::string* why) {
  if (options.requests < 1) return refuse(why, "the request queue needs at least one slot");
  if (options.requesters >= 1 && options.requesters <= LARGEST_REQUESTERS) return true;
  return refuse(
      why, "the reply queue serves 1 to " + std::to_string(LARGEST_REQUESTERS) + " requesters");
}

}  // namespace

std::unique_ptr<EngineQueues> EngineQueues::create(const EngineOptions& options, std::string* why) {
  std::unique_ptr<EngineQueues> queues(new EngineQueues);
  if (!queues->make(options, why)) return nullptr;
  return queues;
}

bool EngineQueues::make(const EngineOptions& options, std::string* why) {
  prefix_ = prefixOf(options);
  if (!checkPrefix(prefix_, why) || !checkCapacities(options, why)) return false;
  if (options.prefix) (void)setenv("ARM_AGENT_PREFIX", options.prefix->c_str(), 1);
  const NameFiles files = nameFiles();
  if (!makeNameFiles(files, why)) return false;
  if (const int process = liveEngine(files.requests); process != 0) {
    return refuse(why, "another engine (process " + std::to_string(process) +
                           ") serves this prefix: stop it, or choose another --prefix");
  }
  if (!lock_.acquire(files.requests)) {
    return refuse(why, "another engine is starting or ending with this prefix: try again");
  }
  files_ = files;
  // The overflow semaphore is taken over: a writer that drains it goes on until nothing is left,
  // for ever when it is gone.
  for (const std::string* path : {&files.empty, &files.requests, &files.replies}) {
    removeLeftovers(*path);
  }
  requests_ = std::make_unique<RequestReader>(options.requests);
  replies_ = std::make_unique<ReplyWriter>(options.requesters);
  if (!requests_->isInitialized() || !replies_->isInitialized()) {
    return refuse(why,
                  "the queues could not be made: look at the kernel's limits (sysctl kernel.sem "
                  "kernel.shmmax kernel.shmall) and at leftovers (ipcs -a)");
  }
  requests_->setReady(options.ready);
  return true;
}

EngineQueues::~EngineQueues() {
  if (files_.requests.empty()) return;
  if (requests_ != nullptr && requests_->isInitialized()) {
    requests_->setReady(false);
    requests_->setState(QUEUE_STATE_CLOSED);
  }
  replies_.reset();
  requests_.reset();
  // What a queue has made that could not be made whole.
  for (const std::string* path :
       {&files_.overflow, &files_.empty, &files_.requests, &files_.replies}) {
    removeLeftovers(*path);
  }
  removeNameFiles(files_);
}

}  // namespace armengine
