// SPDX-License-Identifier: Apache-2.0
// Forwards messages of ZeroMQ publishers to subscribers: usage keel-zeromq-proxy PUBLISHERS
// SUBSCRIBERS, two addresses such as ipc:///run/x. Queues are unlimited, so that nothing is
// dropped; the load limits the messages in flight.
#include <zmq.h>

#include <cstdio>
#include <initializer_list>

namespace {

void* boundSocket(void* context, int type, const char* address) {
  void* const socket = zmq_socket(context, type);
  const int unlimited = 0, backlog = 4096;
  for (const int option : {ZMQ_SNDHWM, ZMQ_RCVHWM})
    zmq_setsockopt(socket, option, &unlimited, sizeof unlimited);
  zmq_setsockopt(socket, ZMQ_BACKLOG, &backlog, sizeof backlog);
  if (zmq_bind(socket, address) == 0) return socket;
  std::perror(address);
  return nullptr;
}

}  // namespace

int main(int argumentCount, char** arguments) {
  if (argumentCount != 3) return 2;
  void* const context = zmq_ctx_new();
  zmq_ctx_set(context, ZMQ_MAX_SOCKETS, 20000);
  void* const publishers = boundSocket(context, ZMQ_XSUB, arguments[1]);
  void* const subscribers = boundSocket(context, ZMQ_XPUB, arguments[2]);
  if (publishers == nullptr || subscribers == nullptr) return 1;
  return zmq_proxy(publishers, subscribers, nullptr);
}
