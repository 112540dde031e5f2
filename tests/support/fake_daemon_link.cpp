#include "support/fake_daemon_link.h"

namespace lumo::testing {

using tarvex::itx::xpc::Dictionary;

void FakeDaemon::registerWithCompletionHandler(tarvex::itx::xpc::ReplyBlock reply) {
  reply(acceptRegistration);
}

void FakeDaemon::handleFileEvent(const Dictionary& event) { record("handleFileEvent:", event); }
void FakeDaemon::handlePrinterEvent(const Dictionary& event) {
  record("handlePrinterEvent:", event);
}
void FakeDaemon::handleProcessStartEvent(const Dictionary& event) {
  record("handleProcessStartEvent:", event);
}
void FakeDaemon::handleProcessExitEvent(const Dictionary& event) {
  record("handleProcessExitEvent:", event);
}

void FakeDaemon::record(const char* selector, const Dictionary& event) {
  std::lock_guard<std::mutex> lock(mutex_);
  received_.push_back({selector, event});
  changed_.notify_all();
}

std::vector<FakeDaemon::Received> FakeDaemon::received() const {
  std::lock_guard<std::mutex> lock(mutex_);
  return received_;
}

std::vector<FakeDaemon::Received> FakeDaemon::received(const std::string& selector) const {
  std::lock_guard<std::mutex> lock(mutex_);
  std::vector<Received> found;
  for (const Received& r : received_) {
    if (r.selector == selector) found.push_back(r);
  }
  return found;
}

size_t FakeDaemon::count() const {
  std::lock_guard<std::mutex> lock(mutex_);
  return received_.size();
}

bool FakeDaemon::waitForCount(size_t n, std::chrono::milliseconds timeout) const {
  std::unique_lock<std::mutex> lock(mutex_);
  return changed_.wait_for(lock, timeout, [&] { return received_.size() >= n; });
}

void FakeDaemon::clear() {
  std::lock_guard<std::mutex> lock(mutex_);
  received_.clear();
}

FakeDaemonLink::FakeDaemonLink(bool listening)
    : daemon_(std::make_shared<FakeDaemon>()),
      connection_(std::make_shared<FakeConnection>(daemon_)) {
  SysExtXPCClientTestPeer::setLink(connection_, daemon_, listening);
}

FakeDaemonLink::~FakeDaemonLink() { SysExtXPCClientTestPeer::setLink(nullptr, nullptr, false); }

void FakeDaemonLink::setListening(bool listening) {
  SysExtXPCClientTestPeer::setLink(connection_, daemon_, listening);
}

void FakeDaemonLink::disconnect() { SysExtXPCClientTestPeer::setLink(nullptr, nullptr, false); }

}  // namespace lumo::testing
