#include "framework/control_channel.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>

#include <cstring>
#include <vector>

#include "framework/support.h"
#include "siplib/reactor.h"
#include "support/temp_dir.h"

namespace {

class Sender {
 public:
  explicit Sender(const std::string& path) : socket_(::socket(AF_UNIX, SOCK_DGRAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0)) {
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    std::memcpy(address.sun_path, path.c_str(), path.size() + 1);
    connected_ = ::connect(socket_, reinterpret_cast<const sockaddr*>(&address), sizeof address) == 0;
  }
  ~Sender() { ::close(socket_); }
  Sender(const Sender&) = delete;
  Sender& operator=(const Sender&) = delete;
  bool connected() const { return connected_; }
  bool send(std::string_view text) const {
    return ::send(socket_, text.data(), text.size(), 0) == static_cast<ssize_t>(text.size());
  }

 private:
  int socket_;
  bool connected_ = false;
};

class Control : public testing::Test {
 protected:
  bool open() { return channel.open(path, error, busy); }
  bool listen() {
    return channel.listen(reactor, [this](std::unique_ptr<char[]> text) { texts.emplace_back(text.get()); });
  }
  void poll() {
    for (int i = 0; i < 20; ++i) reactor.poll();
  }

  TemporaryDir dir;
  std::string path = dir / "ue-proxy.sock";
  siplib::Reactor reactor;
  framework::ControlChannel channel;
  std::vector<std::string> texts;
  std::string error;
  bool busy = false;
};

TEST_F(Control, IsASocketForTheOwnerAlone) {
  ASSERT_TRUE(open()) << error;
  struct stat status {};
  ASSERT_EQ(::lstat(path.c_str(), &status), 0);
  EXPECT_TRUE(S_ISSOCK(status.st_mode));
  EXPECT_EQ(status.st_mode & 0777u, 0600u);
}

TEST_F(Control, EachDatagramIsOneText) {
  ASSERT_TRUE(open() && listen());
  const Sender sender(path);
  EXPECT_TRUE(sender.send("first"));
  EXPECT_TRUE(sender.send(""));
  EXPECT_TRUE(sender.send(std::string(4096, 'x')));
  EXPECT_TRUE(sender.send(std::string_view("cut\0off", 7)));
  poll();
  EXPECT_EQ(texts, (std::vector<std::string>{"first", "", std::string(4096, 'x'), "cut"}));
}

TEST_F(Control, TooLargeATextIsRefusedWithALine) {
  const LogCapture log;
  ASSERT_TRUE(open() && listen());
  const Sender sender(path);
  EXPECT_TRUE(sender.send(std::string(4097, 'x')));
  EXPECT_TRUE(sender.send("good"));
  poll();
  EXPECT_EQ(texts, std::vector<std::string>{"good"});
  EXPECT_TRUE(log.has("control channel: a text of 4097 bytes refused"));
  EXPECT_EQ(log.lines(), 1u);
}

TEST_F(Control, FloodWaitsInTheSocketUntilTextsAreHandled) {
  ASSERT_TRUE(open() && listen());
  const Sender sender(path);
  std::size_t sent = 0;
  bool refused = false;
  for (int i = 0; i < 1000 && !refused; ++i) {
    refused = !sender.send("x");
    sent += !refused;
    reactor.poll();
  }
  EXPECT_TRUE(refused) << "the sender must come to wait";
  EXPECT_EQ(texts.size(), 64u);
  for (std::size_t i = 0; i < sent; ++i) {
    if (i < texts.size()) channel.handled();
    poll();
  }
  EXPECT_EQ(texts.size(), sent) << "nothing is lost";
  EXPECT_TRUE(sender.send("y"));
  poll();
  EXPECT_EQ(texts.back(), "y");
}

TEST_F(Control, SocketOfADeadProcessIsReplaced) {
  ASSERT_EQ(inChild([this] { return open() ? 0 : 1; }), 0);  // ends without closing
  ASSERT_TRUE(std::filesystem::exists(path));
  EXPECT_TRUE(open()) << error;
  EXPECT_TRUE(Sender(path).connected());
}

TEST_F(Control, SocketOfALivingProcessIsLeft) {
  ASSERT_TRUE(open());
  framework::ControlChannel second;
  EXPECT_FALSE(second.open(path, error, busy));
  EXPECT_TRUE(busy);
  EXPECT_EQ(error, "another process listens there");
  EXPECT_TRUE(Sender(path).connected());
}

TEST_F(Control, OtherFileInItsPlaceIsLeft) {
  dir.write("ue-proxy.sock", "text");
  EXPECT_FALSE(open());
  EXPECT_FALSE(busy);
  EXPECT_EQ(readAll(path), "text");
}

TEST_F(Control, PathMustFit) {
  EXPECT_FALSE(channel.open(dir / std::string(200, 'x'), error, busy));
  EXPECT_EQ(error, "the path is too long for a socket");
  EXPECT_FALSE(channel.open(dir / "absent/x.sock", error, busy));
  EXPECT_EQ(error, "No such file or directory");
}

TEST_F(Control, WithoutASocketThereIsNothingToListenTo) {
  EXPECT_FALSE(listen());
}

}  // namespace
