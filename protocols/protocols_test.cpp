// SPDX-License-Identifier: Apache-2.0
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "protocols/auth_proxy.h"
#include "protocols/notify_proxy.h"
#include "protocols/subscriber_proxy.h"
#include "runtime/xpc/interface.h"

namespace keel::protocols {
namespace {

template <class Protocol>
std::vector<std::string> selectorsOf() {
  const auto selectors = xpc::Interface::interfaceWithProtocol<Protocol>().selectors();
  return {selectors.begin(), selectors.end()};
}

// The lists as clients see them: later versions may append, never change.
TEST(Protocols, SelectorsKeepTheirIndexes) {
  EXPECT_EQ(selectorsOf<NotifyProxy>(),
            (std::vector<std::string>{
                "authCheckForUser:andASID:withHandler:", "subscribeTo:withFlags:andHandler:",
                "unsubscribeFrom:", "publishItem:name:flags:value:withHandler:",
                "updatePublishedItem:name:withHandler:", "removePublishedItemForName:withHandler:",
                "getModuleTableWithHandler:", "dumpNotification:withData:andHandler:"}));
  EXPECT_EQ(selectorsOf<SubscriberProxy>(),
            (std::vector<std::string>{"updateSubscriptionFor:withItem:flags:error:",
                                      "getClientInfoViaHandler:"}));
  EXPECT_EQ(selectorsOf<AuthProxy>(),
            (std::vector<std::string>{
                "authServiceCheckWithHandler:", "authenticateUser:withPassword:andHandler:",
                "authenticateForUser:using:withHandler:", "authGetDefaultRealm:",
                "authBasicStartWithHandler:", "authDigestStartWithHandler:",
                "authValidate:andID:withHandler:", "isAuthedASID:withHandler:"}));
}

// What each method sends, as types.
template <class Protocol, auto Member>
using Sent = typename xpc::MethodsOf<Protocol>::template MethodOf<Member>::Sent;
static_assert(std::is_same_v<Sent<NotifyProxy, &NotifyProxy::authCheckForUser>,
                             std::tuple<String, std::int32_t>>);
static_assert(std::is_same_v<Sent<NotifyProxy, &NotifyProxy::subscribeTo>,
                             std::tuple<String, std::uint64_t>>);
static_assert(std::is_same_v<Sent<NotifyProxy, &NotifyProxy::unsubscribeFrom>, std::tuple<String>>);
static_assert(std::is_same_v<Sent<NotifyProxy, &NotifyProxy::publishItem>,
                             std::tuple<Dictionary, String, std::uint64_t, std::int64_t>>);
static_assert(std::is_same_v<Sent<NotifyProxy, &NotifyProxy::updatePublishedItem>,
                             std::tuple<Dictionary, String>>);
static_assert(std::is_same_v<Sent<NotifyProxy, &NotifyProxy::removePublishedItemForName>,
                             std::tuple<String>>);
static_assert(
    std::is_same_v<Sent<NotifyProxy, &NotifyProxy::getModuleTableWithHandler>, std::tuple<>>);
static_assert(
    std::is_same_v<Sent<NotifyProxy, &NotifyProxy::dumpNotification>, std::tuple<String, bool>>);
static_assert(std::is_same_v<Sent<SubscriberProxy, &SubscriberProxy::updateSubscriptionFor>,
                             std::tuple<String, Dictionary, std::uint64_t, Error>>);
static_assert(
    !xpc::MethodsOf<SubscriberProxy>::MethodOf<&SubscriberProxy::updateSubscriptionFor>::kHasReply);
static_assert(!xpc::MethodsOf<NotifyProxy>::MethodOf<&NotifyProxy::unsubscribeFrom>::kHasReply);

}  // namespace
}  // namespace keel::protocols
