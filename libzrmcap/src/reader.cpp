// The recording reader's public face: opening a file or bytes, the summary, and a walk through
// every message.

#include "readerimpl.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

namespace ZR {

ZRMcapReader::ZRMcapReader(const std::string& path) : impl_(std::make_unique<Impl>()) {
  impl_->name = path;
  // Not blocked by a FIFO that nobody writes to: only a regular file is a recording.
  impl_->fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK);
  if (impl_->fd < 0) throw impl_->error(std::string("cannot open (") + std::strerror(errno) + ")");
  struct stat st {};
  if (::fstat(impl_->fd, &st) != 0 || !S_ISREG(st.st_mode))
    throw impl_->error("not a regular file: a recording is read from a file");
  const off_t end = ::lseek(impl_->fd, 0, SEEK_END);
  if (end < 0) throw impl_->error(std::string("cannot seek (") + std::strerror(errno) + ")");
  impl_->size = static_cast<std::uint64_t>(end);
  impl_->open();
}

ZRMcapReader::ZRMcapReader(const void* data, std::size_t size, const std::string& name)
    : impl_(std::make_unique<Impl>()) {
  impl_->name = name;
  const auto* p = static_cast<const std::uint8_t*>(data);
  impl_->memory.assign(p, p + size);
  impl_->size = size;
  impl_->open();
}

ZRMcapReader::~ZRMcapReader() = default;

const ZRMcapSummary& ZRMcapReader::summary() const {
  return impl_->summary;
}

void ZRMcapReader::forEachMessage(const std::function<bool(const ZRMcapMessage&)>& visit,
                                  const std::vector<std::uint16_t>& channels) {
  Impl& r = *impl_;
  if (auto met = r.walk(visit, channels, false)) throw r.error(met->why);
  if (r.stop && !r.stop->truncated) throw r.error(r.stop->why);
}

}  // namespace ZR
