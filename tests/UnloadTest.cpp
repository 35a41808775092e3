// The library as part of a plug-in: loaded, used, stopped and unloaded by a host that links
// neither.

#include <Poco/Pipe.h>
#include <Poco/PipeStream.h>
#include <Poco/Process.h>
#include <Poco/StreamCopier.h>
#include <gtest/gtest.h>

#include "Broker.h"

TEST(Plugin, StartsStopsAndUnloadsWithClientsConnectedAndLoadsAgain) {
    Broker broker;
    Poco::Pipe out;
    const auto host = Poco::Process::launch(
        KEL_UNLOAD_HOST, {KEL_UNLOADED_PLUGIN, broker.address()}, nullptr, &out, &out);
    Poco::PipeInputStream lines(out);
    std::string output;
    Poco::StreamCopier::copyToString(lines, output);
    EXPECT_EQ(0, host.wait()) << output;
    EXPECT_NE(std::string::npos, output.find("ended as it should")) << output;
}
