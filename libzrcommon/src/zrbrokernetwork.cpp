// The broker's part in a network of hosts: its transport and directory client, the calls and
// one-way messages other hosts send its modules (each run as a delivery, answered once what it
// set off is over), the streams it sends, and proxies to the modules of other hosts.

#include "zrbrokerimpl.h"

#include <algorithm>
#include <optional>

#include <boost/asio/post.hpp>

#include <zrcommon/detail/zrcaller.h>
#include <zrcommon/detail/zrdeliverycontext.h>
#include <zrcommon/detail/zrlatencywindow.h>
#include <zrcommon/detail/zrmoduleinternals.h>
#include <zrcommon/zrproxy.h>
#include <zrcommon/zrservicenames.h>
#include <zrerror/zrerrortexts.h>

#include "zrreaper.h"

namespace ZR {

namespace {

const char* const kProxyCategory = "zrcommon.ZRProxy";
// A proxy's one-way calls to another host: how many may wait for the stream (beyond them a
// sender outside any lossless delivery waits), go in one message, and be unanswered at once.
const std::size_t kSendQueue = 1024;
const int kSendBatch = 256;
const int kSendWindow = 8;

std::string quoted(const std::string& s) {
  return "\"" + s + "\"";
}

// What a proxy's one-way line remembers of the failures its stream reported.
struct SendFailures {
  std::mutex mutex;
  std::optional<ZRError> first;  // thrown by the next send
};

// A module of another host: each call goes to that host, found by name at every call; one-way
// calls go on a stream of the proxy's own, in order with its calls.
class ZRRemoteProxy : public ZRProxy {
 public:
  using StreamOpener = std::function<std::shared_ptr<detail::ZRStreamSender>(
      const std::string& endpoint, const std::string& label)>;
  ZRRemoteProxy(const std::string& moduleName, boost::weak_ptr<vo::Session> session,
                std::weak_ptr<ZRTransport> transport, StreamOpener openStream)
      : ZRProxy(moduleName),
        session_(std::move(session)),
        transport_(std::move(transport)),
        openStream_(std::move(openStream)) {}

  bool isValid() const override { return where().has_value(); }

  ZRValue metaCall(std::string_view method, const ZRValue* args, std::size_t count) override {
    std::optional<vo::Session::RemoteService> at = where();
    std::shared_ptr<ZRTransport> transport = transport_.lock();
    if (!at || !transport) throw ZRError(getModuleName(), std::string(method), kModuleDestroyed);
    ZRCallOptions options;
    options.deadline = deadline();
    // The callee's ZRError comes back with its three fields, as the same call raises it here.
    return transport->call(at->address, getModuleName(), std::string(method),
                           std::vector<ZRValue>(args, args + count), options);
  }

  void send(std::string_view method, std::vector<ZRValue> args) override {
    std::optional<vo::Session::RemoteService> at = where();
    if (!at) throw ZRError(getModuleName(), std::string(method), kModuleDestroyed);
    std::shared_ptr<detail::ZRDeliveryLine> line;
    {
      std::lock_guard<std::mutex> lock(mutex_);
      {
        std::lock_guard<std::mutex> failures(failures_->mutex);
        if (failures_->first) {
          const ZRError e = *failures_->first;
          failures_->first.reset();
          throw e;
        }
      }
      // A module that moved to another host, or a stream whose host was lost, gets a new one.
      if (!line_ || endpoint_ != at->address || !line_->has(getModuleName()))
        openLine(at->address, method);
      line = line_;
    }
    // A one-way call made from sound (an extractor's raise) is timed from its capture.
    line->push(getModuleName(), detail::ZRDelivery{std::string(method), std::move(args),
                                                   detail::zrCurrentCaptureNs()});
  }

 private:
  std::optional<vo::Session::RemoteService> where() const {
    boost::shared_ptr<vo::Session> session = session_.lock();
    if (!session) return std::nullopt;
    return session->remoteService(getModuleName());
  }

  void openLine(const std::string& endpoint, std::string_view method) {
    std::shared_ptr<detail::ZRStreamSender> stream =
        openStream_(endpoint, "proxy:" + getModuleName());
    if (!stream) throw ZRError(getModuleName(), std::string(method), kModuleDestroyed);
    const std::string module = getModuleName();
    detail::ZRDeliveryLine::Options o;
    o.policy = detail::ZRDeliveryPolicy::Lossless;
    o.capacity = kSendQueue;
    o.resumeAt = kSendQueue / 2;
    o.messageBatch = kSendBatch;
    o.heldByAnyDelivery = true;  // a call answers once its one-way calls were taken
    o.category = kProxyCategory;
    o.publishFunction = o.deliverFunction = "send";
    o.texts.failed = [](const std::string& sub, const detail::ZRDelivery& call,
                        const std::string& failure, std::int64_t heldBack) {
      return quoted(call.method) + " of " + quoted(sub) + " (sent one way) failed: " + failure +
             (heldBack ? " (" + std::to_string(heldBack) + " similar failures held back)" : "");
    };
    line_ = std::make_shared<detail::ZRDeliveryLine>(std::move(o));
    endpoint_ = endpoint;
    std::shared_ptr<SendFailures> failures = failures_;
    line_->addRemote(
        module,
        [stream, module, failures](std::vector<detail::ZRDelivery>& batch, bool lossless,
                                   detail::ZRDeliveryLine::Done done) {
          stream->sendCalls({module}, batch, lossless, [done, failures](const ZRError* failure) {
            if (failure && failure->getDescription() != kModuleDestroyed) {
              std::lock_guard<std::mutex> lock(failures->mutex);
              if (!failures->first) failures->first = *failure;
            }
            done(failure);
          });
        },
        kSendWindow, [stream] { return stream->isLost(); }, stream->ioExecutor());
  }

  boost::weak_ptr<vo::Session> session_;
  std::weak_ptr<ZRTransport> transport_;
  StreamOpener openStream_;
  std::mutex mutex_;
  std::shared_ptr<detail::ZRDeliveryLine> line_;
  std::string endpoint_;
  std::shared_ptr<SendFailures> failures_ = std::make_shared<SendFailures>();
};

// Publishes the session's local names through the directory client, with what each module is.
class DirectoryNetwork : public vo::SessionNetwork {
 public:
  DirectoryNetwork(ZRDirectoryClient& client, std::function<ZRModuleInfo(const std::string&)> info)
      : client_(client), info_(std::move(info)) {}
  void publish(const std::string& name) override { client_.publish(name, info_(name)); }
  void lookFor(const std::string&) noexcept override { client_.syncSoon(); }
  void unpublish(const std::string& name) noexcept override {
    try {
      client_.unpublish(name);
    } catch (const std::exception& e) {
      // Its lease takes the name away when the directory cannot be told.
      VO_LOG(vo::LogLevel_Warning, kBrokerCategory)
          << "cannot withdraw \"" << name << "\": " << e.what();
    }
  }

 private:
  ZRDirectoryClient& client_;
  std::function<ZRModuleInfo(const std::string&)> info_;
};

// How one incoming call or message ended, given to its answer once it is over.
struct Outcome {
  ZRValue value;
  std::optional<ZRError> error;
  void give(const ZRAnswer& answer) {
    if (error)
      answer.fail(*error);
    else
      answer.reply(std::move(value));
  }
};

}  // namespace

boost::shared_ptr<ZRProxy> ZRBroker::Impl::remoteProxy(const std::string& moduleName) {
  std::weak_ptr<Impl> weak = self;
  return boost::make_shared<ZRRemoteProxy>(
      moduleName, session, transport,
      [weak](const std::string& endpoint,
             const std::string& label) -> std::shared_ptr<detail::ZRStreamSender> {
        std::shared_ptr<Impl> impl = weak.lock();
        return impl ? impl->openStream(endpoint, label) : nullptr;
      });
}

std::shared_ptr<detail::ZRStreamSender> ZRBroker::Impl::openStream(const std::string& endpoint,
                                                                   const std::string& label) {
  if (!transport) return nullptr;
  std::lock_guard<std::mutex> lock(streamsMutex);
  const std::string streamName = label + "#" + std::to_string(nextStream++);
  auto sender = std::make_shared<detail::ZRStreamSender>(transport, endpoint, streamName);
  streams[streamName] = sender;
  return sender;
}

std::shared_ptr<detail::ZRStreamSender> ZRBroker::Impl::findStream(const std::string& streamName) {
  std::lock_guard<std::mutex> lock(streamsMutex);
  auto it = streams.find(streamName);
  if (it == streams.end()) return nullptr;
  std::shared_ptr<detail::ZRStreamSender> s = it->second.lock();
  if (!s) streams.erase(it);
  return s;
}

void ZRBroker::Impl::noteMethods(const ZRModuleCore& module) {
  std::vector<std::string> methods;
  for (const ZRMethodDescription& d : module.getMethodDescriptions())
    if (std::find(methods.begin(), methods.end(), d.methodName) == methods.end())
      methods.push_back(d.methodName);
  std::lock_guard<std::mutex> lock(infoMutex);
  ZRModuleInfo& info = infos[module.getName()];
  info.kind = moduleKind(module.getName(), methods);
  info.methods = std::move(methods);
}

ZRModuleInfo ZRBroker::Impl::moduleInfo(const std::string& module) {
  std::lock_guard<std::mutex> lock(infoMutex);
  auto it = infos.find(module);
  return it == infos.end() ? ZRModuleInfo{"module", {}, {}} : it->second;
}

ZRValue ZRBroker::Impl::runIncoming(const ZRIncomingCall& c) {
  if (directoryServer && c.module == ZRDirectoryServer::kModuleName)
    return directoryServer->handle(c);
  if (c.module.empty()) {
    fanOut(c);
    return ZRValue();
  }
  // Through an in-process proxy, so that it raises exactly the errors the same call raises here.
  boost::weak_ptr<vo::DynamicObject> handle = session->serviceHandle(c.module);
  if (handle.expired()) throw ZRError(c.module, c.method, kModuleDestroyed);
  ZRProxy local(c.module, handle);
  return local.metaCall(c.method, c.args.data(), c.args.size());
}

// A fan-out message: its first argument names the modules of this host that take the calls,
// each of the others is one call's arguments. Every call is made on every module; the first
// failure is the message's, for its sender to count.
void ZRBroker::Impl::fanOut(const ZRIncomingCall& c) {
  if (c.args.empty() || !c.args[0].isArray()) {
    warnFanOut("a stream message from " + c.peerHost + " names no modules; dropped");
    throw ZRError("", c.method, "a fan-out message names no modules");
  }
  std::optional<ZRError> first;
  const std::vector<ZRValue>& names = c.args[0].arrayElements();
  for (std::size_t call = 1; call < c.args.size(); ++call) {
    if (!c.args[call].isArray()) {
      warnFanOut("a stream message from " + c.peerHost + " holds a call that is no array");
      if (!first) first = ZRError("", c.method, "a fan-out call is no array of arguments");
      continue;
    }
    const std::vector<ZRValue>& args = c.args[call].arrayElements();
    for (const ZRValue& target : names) {
      const std::string module = target.isString() ? target.toStringRef() : std::string();
      try {
        boost::weak_ptr<vo::DynamicObject> handle = session->serviceHandle(module);
        if (handle.expired()) throw ZRError(module, c.method, kModuleDestroyed);
        ZRProxy(module, handle).metaCall(c.method, args.data(), args.size());
      } catch (const ZRError& e) {
        warnFanOut(quoted(c.method) + " of " + quoted(module) + " from " + c.peerHost +
                   "'s stream failed: " + e.what());
        if (!first) first = e;
      }
    }
  }
  if (first) throw *first;
}

void ZRBroker::Impl::warnFanOut(const std::string& what) {
  std::int64_t heldBack = 0;
  {
    std::lock_guard<std::mutex> lock(streamsMutex);
    if (!fanOutWarnings.allow(heldBack)) return;
  }
  VO_LOG(vo::LogLevel_Warning, kBrokerCategory)
      << what << " (" << heldBack << " warnings held back)";
}

void ZRBroker::startNetwork(const ZRBrokerOptions& options) {
  Impl* impl = impl_.get();
  ZRTransportOptions t;
  t.hostName = impl->name;
  t.listen = options.serveDirectory ? options.directory : options.listen;
  t.advertise = options.advertise;
  t.heartbeat = options.heartbeat;
  impl->heartbeat = options.heartbeat;
  t.maxMessageSize = options.maxMessageSize;
  t.insecure = options.insecure;
  t.curvePublicKey = options.curvePublicKey;
  t.curveSecretKey = options.curveSecretKey;
  t.allowedClientKeys = options.allowedClientKeys;
  if (options.serveDirectory) {
    impl->directoryServer.reset(new ZRDirectoryServer(options.heartbeat));
    // A module of this host waiting for a name must not keep the directory from publishing it.
    t.answeredOnIoThread.insert(ZRDirectoryServer::kModuleName);
  }
  // Each incoming call or message is a delivery: a call answers once the one-way messages it
  // sent were taken, a lossless message once what it set off was delivered too; any other
  // message at once.
  auto handler = [impl](const ZRIncomingCall& c, ZRAnswer answer) {
    auto outcome = std::make_shared<Outcome>();
    const bool waits = !c.oneWay || c.lossless;
    {
      detail::ZRDeliveryContext context;
      context.lossless = c.lossless;
      if (waits)
        context.completion =
            std::make_shared<detail::ZRCompletion>([answer, outcome] { outcome->give(answer); });
      detail::ZRDeliveryScope scope(std::move(context));
      const detail::ZRCaller caller{c.peerHost, c.peerEndpoint, c.peerKey};
      detail::ZRCallerScope from(caller);
      // What the message's sound sets off here is timed from its capture there.
      const detail::ZRCaptureScope capture(c.captureNs);
      try {
        outcome->value = impl->runIncoming(c);
      } catch (const ZRError& e) {
        outcome->error = e;
      } catch (const std::exception& e) {
        outcome->error = ZRError(c.module, c.method, e.what());
      }
    }
    if (!waits) outcome->give(answer);
  };
  // Not through the broker's lock: registration holds it while it publishes, and the directory
  // may be this very broker.
  ZRTransportExecutors executors;
  executors.post = [pool = impl->pool](std::function<void()> task) {
    std::lock_guard<std::mutex> lock(pool->mutex);
    // A call arriving once the broker is shut down is dropped: its transport is stopping and
    // fails the caller.
    if (!pool->closed) boost::asio::post(pool->pool, guardedTask(&pool->pool, std::move(task)));
  };
  executors.makeSerial = [impl]() -> ZRTransportExecutors::Executor {
    ZRStrand strand = impl->makeStrand();
    return [strand](std::function<void()> task) { strand.post(std::move(task)); };
  };
  impl->transport = std::make_shared<ZRTransport>(t, handler, executors);
  const std::string directory =
      options.serveDirectory ? impl->transport->endpoint() : options.directory;
  // A CURVE deployment: hosts listen with the directory's key pair (the directory's own when it
  // serves it), so the directory's public key is the server key of a host known by no other.
  const std::string serverKey = options.directoryPublicKey.empty() && options.serveDirectory
                                    ? options.curvePublicKey
                                    : options.directoryPublicKey;
  if (!serverKey.empty()) impl->transport->setServerKey(directory, serverKey);
  impl->directoryClient.reset(
      new ZRDirectoryClient(*impl->transport, directory, impl->name, options.heartbeat));
  const std::string self = impl->transport->endpoint();
  auto apply = [impl, self, serverKey](const ZRDirectoryEntry& e, bool added) {
    if (e.endpoint == self) return;  // our own names, already local
    if (e.name == kMemoryServiceName) impl->memoryListed(added ? e.endpoint : std::string());
    // A host listens with the key pair it connects with, which its publishing connection proved
    // to the directory: a client with a pair of its own (events come back to it) is reached
    // with its key, not the hosts'.
    if (added && !serverKey.empty())
      impl->transport->setServerKey(e.endpoint, e.key.empty() ? serverKey : e.key);
    if (added)
      impl->session->addRemoteService(e.name, {e.host, e.endpoint});
    else
      impl->session->removeRemoteService(e.name, e.endpoint);
  };
  impl->directoryClient->setListener(apply);
  impl->transport->setCreditListener([impl](const std::string& endpoint, const std::string& stream,
                                            std::uint32_t credits, std::int64_t delayNs) {
    std::shared_ptr<detail::ZRStreamSender> sender = impl->findStream(stream);
    if (sender && sender->endpoint() == endpoint) sender->grant(credits, delayNs);
  });
  impl->transport->setStreamErrorListener([impl](const std::string& endpoint,
                                                 const std::string& stream, std::uint64_t seq,
                                                 const ZRError& error) {
    std::shared_ptr<detail::ZRStreamSender> sender = impl->findStream(stream);
    if (sender && sender->endpoint() == endpoint) sender->error(seq, error);
  });
  // A host found dead (or gone, or the directory's host) takes its names and streams with it at
  // once, without waiting for its lease to run out at the directory, which may be the one that
  // died.
  impl->transport->setPeerLostListener([impl](const std::string& endpoint) {
    impl->forEachStream([&](detail::ZRStreamSender& s) {
      if (s.endpoint() == endpoint) s.lose();
    });
    if (impl->directoryClient) impl->directoryClient->forget(endpoint);
    {
      std::lock_guard<std::mutex> lock(impl->infoMutex);
      if (impl->memoryAt == endpoint) impl->memoryAt.clear();  // the next listing is news
    }
    for (const std::string& name : impl->session->services()) {
      auto where = impl->session->remoteService(name);
      if (where && where->address == endpoint) impl->session->removeRemoteService(name, endpoint);
    }
  });
  // What the client learnt before it had a listener.
  for (const ZRDirectoryEntry& e : impl->directoryClient->entries()) apply(e, true);
  impl->session->setNetwork(std::make_shared<DirectoryNetwork>(
      *impl->directoryClient, [impl](const std::string& name) { return impl->moduleInfo(name); }));
  impl->reaper = detail::ZRReaper::start(shared_from_this());
}

namespace detail {
void ZRModuleAccess::noteDeclaredEvent(ZRBroker& broker, const std::string& producer,
                                       const std::string& event) {
  ZRBroker::Impl& impl = *broker.impl_;
  {
    std::lock_guard<std::mutex> lock(impl.infoMutex);
    std::vector<std::string>& events = impl.infos[producer].events;
    if (std::find(events.begin(), events.end(), event) != events.end()) return;
    events.push_back(event);
  }
  // Declared once the module is published (most declare in their constructor, before): the
  // directory learns it too.
  if (!impl.directoryClient || !impl.session->service(producer)) return;
  try {
    impl.directoryClient->publish(producer, impl.moduleInfo(producer));
  } catch (const ZRError& e) {
    VO_LOG(vo::LogLevel_Warning, kBrokerCategory)
        << "cannot tell the directory that \"" << producer << "\" declared \"" << event
        << "\": " << e.what();
  }
}

bool ZRModuleAccess::publisher(ZRBroker& broker, const std::string& name, std::string& endpoint,
                               std::string& key) {
  ZRBroker::Impl& impl = *broker.impl_;
  if (!impl.directoryClient) return false;
  std::optional<ZRDirectoryEntry> e = impl.directoryClient->find(name);
  if (!e) return false;
  endpoint = e->endpoint;
  key = e->key;
  return true;
}

std::shared_ptr<ZRStreamSender> ZRModuleAccess::openStream(ZRBroker& broker,
                                                           const std::string& endpoint,
                                                           const std::string& label) {
  return broker.impl_->openStream(endpoint, label);
}

std::shared_ptr<ZRStreamSender> openStream(ZRBroker& broker, const std::string& endpoint,
                                           const std::string& label) {
  return ZRModuleAccess::openStream(broker, endpoint, label);
}
}  // namespace detail

}  // namespace ZR
