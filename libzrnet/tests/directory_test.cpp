// The directory with its server and three hosts in one process: publishing, conflicts, late
// joiners, leases, and a directory that restarts.

#include <zrnet/zrdirectory.h>

#include "executors.h"

#include <unistd.h>

#include <condition_variable>
#include <mutex>

#include <gtest/gtest.h>
#include <boost/asio/post.hpp>
#include <boost/asio/thread_pool.hpp>

#include "zrtest.h"

using namespace ZR;

namespace {

const auto kBeat = zrtest::kHeartbeat;

ZRTransportOptions options(const std::string& host, const std::string& listen) {
  ZRTransportOptions o;
  o.hostName = host;
  o.listen = listen;
  o.heartbeat = kBeat;
  return o;
}

struct Host {
  boost::asio::thread_pool pool{2};
  ZRTransport transport;
  ZRDirectoryClient client;
  std::mutex mutex;
  std::condition_variable changed;
  std::vector<std::string> events;  // "+name@host" / "-name@host"
  Host(const std::string& name, const std::string& directory)
      : transport(
            options(name, "tcp://127.0.0.1:0"),
            [](const ZRIncomingCall& c) -> ZRValue { throw ZRError(c.module, c.method, "none"); },
            zrtest::poolExecutors(pool)),
        client(transport, directory, name, kBeat) {
    client.setListener([this](const ZRDirectoryEntry& e, bool added) {
      std::lock_guard<std::mutex> lock(mutex);
      events.push_back((added ? "+" : "-") + e.name + "@" + e.host);
      changed.notify_all();
    });
  }
  // Waits until the event has happened (a failure after a hang guard, not a timing check).
  bool saw(const std::string& event) {
    std::unique_lock<std::mutex> lock(mutex);
    return changed.wait_for(lock, std::chrono::seconds(10), [&] {
      return std::find(events.begin(), events.end(), event) != events.end();
    });
  }
};

struct DirectoryHost {
  boost::asio::thread_pool pool{2};
  ZRDirectoryServer server{kBeat};
  ZRTransport transport;
  explicit DirectoryHost(const std::string& endpoint)
      : transport(
            options("dir", endpoint),
            ZRTransport::SyncHandler([this](const ZRIncomingCall& c) { return server.handle(c); }),
            zrtest::poolExecutors(pool)) {}
};

TEST(Directory, HostsSeeEachOthersNamesConflictsLateJoinersLeasesAndRestarts) {
  const std::string at = "ipc:///tmp/zrnet-directory-test-" + std::to_string(getpid());
  auto directory = std::make_unique<DirectoryHost>(at);
  auto a = std::make_unique<Host>("A", at);
  Host b("B", at);

  a->client.publish("X");
  a->client.publish("X");  // again from the same host: fine
  ASSERT_TRUE(b.saw("+X@A"));
  EXPECT_EQ(b.client.find("X")->endpoint, a->transport.endpoint());
  ZRError taken = zrtest::errorOf([&] { b.client.publish("X"); });
  EXPECT_EQ(taken.getModuleName() + "|" + taken.getMethodName() + "|" + taken.getDescription(),
            "X|publish|already published by host A (" + a->transport.endpoint() + ")");

  b.client.publish("Y");
  a->client.unpublish("X");
  ASSERT_TRUE(b.saw("-X@A"));
  a->client.publish("Z");
  {
    Host late("C", at);  // a snapshot, then changes
    ASSERT_TRUE(late.saw("+Y@B"));
    ASSERT_TRUE(late.saw("+Z@A"));
    EXPECT_FALSE(late.client.find("X"));
  }

  // The directory restarts: the hosts publish again by themselves.
  directory.reset();
  directory = std::make_unique<DirectoryHost>(at);
  Host after("D", at);
  ASSERT_TRUE(after.saw("+Y@B"));
  ASSERT_TRUE(after.saw("+Z@A"));

  // A host that stops answering loses its names everywhere once its lease runs out.
  a->client.stop();
  ASSERT_TRUE(b.saw("-Z@A"));
  ASSERT_TRUE(after.saw("-Z@A"));
  EXPECT_TRUE(b.client.find("Y"));

  ZRIncomingCall bad;
  bad.method = "sync";
  bad.args = {ZRValue(1)};
  EXPECT_EQ(zrtest::errorOf([&] { directory->server.handle(bad); }).getDescription(),
            "expects 2 strings and 1 integers");
}

// What the directory sees of a call: who asks (host id, host, endpoint) over which key.
ZRIncomingCall directoryCall(const std::string& method, const std::string& hostId,
                             const std::string& endpoint, const std::string& name,
                             const std::string& key = "") {
  ZRIncomingCall c;
  c.module = ZRDirectoryServer::kModuleName;
  c.method = method;
  c.peerKey = key;
  c.args = {ZRValue(hostId), ZRValue("host-" + hostId), ZRValue(endpoint), ZRValue(name)};
  return c;
}

std::string listed(ZRDirectoryServer& server, const std::string& name) {
  ZRIncomingCall sync;
  sync.method = "sync";
  sync.args = {ZRValue("reader"), ZRValue(""), ZRValue(0)};
  const ZRValue reply = server.handle(sync);
  for (const ZRValue& c : reply[3].arrayElements()) {
    ZRDirectoryEntry e;
    bool added = false;
    if (readDirectoryChange(c, e, added) && e.name == name)
      return e.host + "@" + e.endpoint + "#" + e.key;
  }
  return "";
}

TEST(Directory, ANameBelongsToTheIdentityThatPublishedIt) {
  zrtest::LogCapture log("zrnet", vo::LogLevel_Warning);
  ZRDirectoryServer server(kBeat);
  auto refusal = [&](const ZRIncomingCall& c) {
    return zrtest::errorOf([&] { server.handle(c); });
  };
  // Without CURVE the identity is the host id: another id claiming the holder's endpoint, its
  // unpublish, or a publish of its own are refused, naming the holder.
  server.handle(directoryCall("publish", "v1", "tcp://v:1", "X"));
  for (const auto& [method, endpoint] : std::vector<std::pair<std::string, std::string>>{
           {"publish", "tcp://v:1"}, {"unpublish", "tcp://v:1"}, {"publish", "tcp://e:2"}}) {
    const ZRError e = refusal(directoryCall(method, "evil", endpoint, "X"));
    EXPECT_EQ(e.getModuleName() + "|" + e.getMethodName() + "|" + e.getDescription(),
              "X|" + method + "|already published by host host-v1 (tcp://v:1)");
  }
  EXPECT_EQ(listed(server, "X"), "host-v1@tcp://v:1#");
  EXPECT_EQ(log.count("refused to let host host-evil (tcp://e:2) publish \"X\": it belongs to "
                      "host host-v1 (tcp://v:1)"),
            1);
  EXPECT_EQ(server.handle(directoryCall("unpublish", "nobody", "tcp://n:1", "Y")), ZRValue(false));

  // Under CURVE the identity is the key: even the holder's own host id over another key is
  // refused, and the holder's key under a new host id (a restart) has the name back at once.
  server.handle(directoryCall("publish", "k1", "tcp://k:1", "K", "KEY-A"));
  EXPECT_EQ(refusal(directoryCall("publish", "k1", "tcp://k:1", "K", "KEY-B")).getDescription(),
            "already published by host host-k1 (tcp://k:1)");
  EXPECT_EQ(refusal(directoryCall("unpublish", "k1", "tcp://k:1", "K", "KEY-B")).getDescription(),
            "already published by host host-k1 (tcp://k:1)");
  EXPECT_EQ(server.handle(directoryCall("publish", "k2", "tcp://k:9", "K", "KEY-A")),
            ZRValue(true));
  EXPECT_EQ(listed(server, "K"), "host-k2@tcp://k:9#KEY-A");
  EXPECT_EQ(server.handle(directoryCall("unpublish", "k2", "tcp://k:9", "K", "KEY-A")),
            ZRValue(true));
  EXPECT_EQ(listed(server, "K"), "");
}

}  // namespace
