// zr keygen NAME: a CURVE key pair for hosts and clients that talk beyond loopback.

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <stdexcept>

#include <zrnet/zrtransport.h>

#include "command.h"

namespace zr {
namespace {

void writeFile(const std::string& path, const std::string& text, mode_t mode) {
  // O_EXCL: an existing key is never overwritten by accident.
  const int fd = ::open(path.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, mode);
  if (fd < 0) throw std::runtime_error("cannot create " + path + ": " + std::strerror(errno));
  const bool ok = ::fchmod(fd, mode) == 0 &&
                  ::write(fd, text.data(), text.size()) == static_cast<ssize_t>(text.size());
  const int error = errno;
  if (::close(fd) != 0 || !ok)
    throw std::runtime_error("cannot write " + path + ": " + std::strerror(ok ? errno : error));
}

class KeygenCommand : public Command {
 public:
  CLI::App* define(CLI::App& app) override {
    CLI::App* cmd = app.add_subcommand(
        "keygen", "Write a CURVE key pair: NAME.key (secret, mode 0600) and NAME.pub.");
    cmd->add_option("NAME", name_, "Path and name of the files, without extension.")->required();
    return cmd;
  }

  int run() override {
    const auto [publicKey, secretKey] = ZR::ZRTransport::generateKeyPair();
    writeFile(name_ + ".key", publicKey + "\n" + secretKey + "\n", 0600);
    writeFile(name_ + ".pub", publicKey + "\n", 0644);
    std::printf("%s.key %s.pub\n", name_.c_str(), name_.c_str());
    return 0;
  }

 private:
  std::string name_;
};

}  // namespace

std::unique_ptr<Command> makeKeygenCommand() {
  return std::make_unique<KeygenCommand>();
}

}  // namespace zr
