// The reply to a page's edit carries the changed branch and nothing beside it:
// the edited parameter whole, the groups above it without their texts or
// their other members.
#include "host/bundle.h"
#include "host/host.h"
#include "host/instance.h"
#include "storage/cbor_diagnostic.h"

#include <gtest/gtest.h>

#include <clap/clap.h>
#include <clap/ext/draft/webview.h>

#include <memory>
#include <string>

using namespace lumbrel::host;

TEST(WebPartialReply, EditOfAGroupsFirstParameterRepliesWithThatParameterAlone) {
	std::string error;
	auto bundle = Bundle::load(LUMBREL_BUNDLE_PATH, error);
	ASSERT_TRUE(bundle) << error;
	Host host;
	Instance instance(*bundle, "varkesh.lumbrel.pitch-shifter-layer1", host);
	ASSERT_TRUE(instance.init());
	auto *webview = instance.extension<clap_plugin_webview>(CLAP_EXT_WEBVIEW);
	ASSERT_NE(webview, nullptr);
	auto receive = [&](const char *hex) {
		auto bytes = lumbrel_test::hexBytes(hex);
		ASSERT_TRUE(webview->receive(instance.clapPlugin(), bytes.data(), std::uint32_t(bytes.size())));
	};
	receive("65 7265616479"); // "ready": the whole state goes out first
	host.sentMessages.clear();

	// ["state", {"engineConfig": {"latencyMs": {"rangeUnit": 0.25}}}]; latencyMs
	// is the first member of its group, so the two share an address.
	receive("82 65 7374617465 A1 6C 656E67696E65436F6E666967 A1 69 6C6174656E63794D73"
			" A1 69 72616E6765556E6974 FB 3FD0000000000000");
	std::string reply;
	for (const auto &m : host.sentMessages) {
		std::string text = lumbrel_test::diagnostic(std::vector<unsigned char>(m.begin(), m.end()));
		if (text.rfind("[\"state\"", 0) == 0) reply = text;
	}
	ASSERT_FALSE(reply.empty());
	EXPECT_EQ(reply.find("\"Engine\""), std::string::npos) << reply;
	EXPECT_EQ(reply.find("\"desc\""), std::string::npos) << reply;
	EXPECT_EQ(reply.find("\"overlap\""), std::string::npos) << reply;
	EXPECT_EQ(reply.find("Pitch Shifter"), std::string::npos) << reply;
	EXPECT_NE(reply.find("\"latencyMs\": {_ \"value\""), std::string::npos) << reply;
	EXPECT_NE(reply.find("\"name\": \"latency\""), std::string::npos) << reply;
	EXPECT_NE(reply.find("\"rangeUnit\": 0.25"), std::string::npos) << reply;
}
