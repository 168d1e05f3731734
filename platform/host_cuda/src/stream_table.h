#pragma once

#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <vector>

#include "stream.h"

namespace ostrel::host_cuda::detail {

// All streams of the process by handle.
class StreamTable {
 public:
  cudaStream_t create(bool blocking, bool low_priority);

  // Takes the stream out; what is queued on it still runs. False when there is no such stream.
  bool destroy(cudaStream_t handle);

  // The null stream for null; nothing for a handle that is not alive.
  std::shared_ptr<Stream> find(cudaStream_t handle);

  // Runs or queues the work, after what the null stream and blocking streams owe each other.
  void submit(Stream& stream, const Work& work);

  // Waits for all work of all streams, destroyed ones too, that was submitted before the call.
  void wait_for_all();
  bool all_idle();

  // Calls `action` when all are idle; says whether they were. Holds nobody off who submits work meanwhile.
  bool if_idle(const std::function<void()>& action);

 private:
  std::vector<std::shared_ptr<Stream>> every_stream();
  std::vector<std::shared_ptr<Stream>> predecessors(const Stream& stream);

  std::mutex mutex_;
  std::map<cudaStream_t, std::shared_ptr<Stream>> alive_;
  std::vector<std::shared_ptr<Stream>> draining_;  // destroyed with work pending
  std::shared_ptr<Stream> null_stream_ = std::make_shared<Stream>(true, false);
};

StreamTable& streams();

}  // namespace ostrel::host_cuda::detail
