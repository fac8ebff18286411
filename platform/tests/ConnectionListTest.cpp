#include "PlatformFixture.h"

namespace trilba::test {

using network::ConnectionInfo;
using network::ConnectionInfoContainer;

class ConnectionListTest : public PlatformFixture {
protected:
    ConnectionInfoContainer listIn(const std::string& text) {
        write(text);
        manager_ = makeManager();
        ConnectionInfoContainer connections;
        manager_->getConnections(connections);
        return connections;
    }

    static void expectEntry(const ConnectionInfo& entry, const std::string& name, int kind,
                            bool active, bool flagged) {
        EXPECT_EQ(entry.name, name);
        EXPECT_EQ(entry.kind, kind);
        EXPECT_EQ(entry.active, active);
        EXPECT_EQ(entry.flagged, flagged);
    }

    static constexpr const char* kTwo = "[Connections]\nList=wifi0;cell0;\n"
                                        "[Connection wifi0]\nKind=1\nActive=true\nFlagged=false\n"
                                        "[Connection cell0]\nKind=2\nActive=false\nFlagged=true\n";

    std::unique_ptr<network::IConnectionManager> manager_;
};

TEST_F(ConnectionListTest, MissingFileHasNone) {
    manager_ = makeManager();
    EXPECT_EQ(manager_->connectionCount(), 0U);
    EXPECT_FALSE(manager_->hasActiveConnection());
}

TEST_F(ConnectionListTest, EntriesComeInTheOrderOfTheList) {
    const auto connections = listIn(kTwo);
    ASSERT_EQ(connections.size(), 2U);
    expectEntry(connections.at(0), "wifi0", 1, true, false);
    expectEntry(connections.at(1), "cell0", 2, false, true);
}

TEST_F(ConnectionListTest, OrderOfTheGroupsDoesNotMatter) {
    const auto connections = listIn("[Connection b]\n[Connection a]\n[Connections]\nList=a;b\n");
    ASSERT_EQ(connections.size(), 2U);
    EXPECT_EQ(connections.at(0).name, "a");
    EXPECT_EQ(connections.at(1).name, "b");
}

TEST_F(ConnectionListTest, AbsentKeysHaveTheDefaults) {
    const auto connections = listIn("[Connections]\nList=bare;\n[Connection bare]\n");
    ASSERT_EQ(connections.size(), 1U);
    expectEntry(connections.at(0), "bare", 0, false, false);
}

TEST_F(ConnectionListTest, AnyIntegerIsAKind) {
    const auto connections = listIn("[Connections]\nList=a;b;\n[Connection a]\nKind=-3\n"
                                    "[Connection b]\nKind=2147483647\n");
    ASSERT_EQ(connections.size(), 2U);
    EXPECT_EQ(connections.at(0).kind, -3);
    EXPECT_EQ(connections.at(1).kind, 2147483647);
}

TEST_F(ConnectionListTest, NameWithoutGroupIsLeftOut) {
    const auto connections =
        listIn("[Connections]\nList=ghost;real;;\n[Connection real]\nKind=1\n");
    ASSERT_EQ(connections.size(), 1U);
    EXPECT_EQ(connections.at(0).name, "real");
}

TEST_F(ConnectionListTest, GroupThatIsNotListedIsLeftOut) {
    EXPECT_TRUE(listIn("[Connection real]\nKind=none\n").empty());
}

TEST_F(ConnectionListTest, SpaceAroundNamesDoesNotCount) {
    const auto connections =
        listIn("[Connections]\nList= a;\t b;\n[Connection a]\n[Connection b]\n");
    ASSERT_EQ(connections.size(), 2U);
    EXPECT_EQ(connections.at(0).name, "a");
    EXPECT_EQ(connections.at(1).name, "b");
}

TEST_F(ConnectionListTest, SemicolonBehindSpaceBeginsACommentAndEndsNoName) {
    const auto connections = listIn("[Connections]\nList=a ; b;\n[Connection a]\n[Connection b]\n");
    ASSERT_EQ(connections.size(), 1U);
    EXPECT_EQ(connections.at(0).name, "a");
}

TEST_F(ConnectionListTest, FillingReplacesWhatTheContainerHeld) {
    write(kTwo);
    manager_ = makeManager();
    ConnectionInfoContainer connections;
    connections.add({"stale", 9, true, true});
    manager_->getConnections(connections);
    ASSERT_EQ(connections.size(), 2U);
    EXPECT_EQ(connections.at(0).name, "wifi0");
}

TEST_F(ConnectionListTest, CountsAndFindsWhatIsListed) {
    write(kTwo);
    manager_ = makeManager();
    EXPECT_EQ(manager_->connectionCount(), 2U);
    EXPECT_TRUE(manager_->hasActiveConnection());
    ConnectionInfo found;
    EXPECT_TRUE(manager_->findConnection("cell0", found));
    expectEntry(found, "cell0", 2, false, true);
}

TEST_F(ConnectionListTest, UnknownNameLeavesTheEntryUntouched) {
    write(kTwo);
    manager_ = makeManager();
    ConnectionInfo found{"before", 7, true, true};
    EXPECT_FALSE(manager_->findConnection("eth0", found));
    expectEntry(found, "before", 7, true, true);
}

TEST_F(ConnectionListTest, InactiveConnectionsDoNotCountAsActive) {
    write("[Connections]\nList=a;\n[Connection a]\nKind=1\n");
    manager_ = makeManager();
    EXPECT_EQ(manager_->connectionCount(), 1U);
    EXPECT_FALSE(manager_->hasActiveConnection());
}

TEST_F(ConnectionListTest, ContainerIsAPlainList) {
    ConnectionInfoContainer connections;
    EXPECT_TRUE(connections.empty());
    connections.add({"a", 1, true, false});
    connections.add({"b", 2, false, true});
    std::string names;
    for (const ConnectionInfo& entry : connections) {
        names += entry.name;
    }
    EXPECT_EQ(names, "ab");
    EXPECT_EQ(connections.size(), 2U);
    EXPECT_THROW(static_cast<void>(connections.at(2)), std::out_of_range);
    connections.clear();
    EXPECT_EQ(connections.size(), 0U);
}

} // namespace trilba::test
