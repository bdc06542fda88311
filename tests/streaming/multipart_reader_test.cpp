#include "cms/streaming/internal/multipart_reader.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <string>
#include <vector>

namespace {

using cms::MultipartReader;
using testing::ElementsAre;
using Step = MultipartReader::Step;

constexpr long kLargest = 1000;

struct MultipartAnswer {
  int status = 0;
  std::vector<std::string> parts;
};

// What a reader finds in an answer that comes in pieces of so many bytes.
MultipartAnswer Read(const std::string& text, std::size_t piece) {
  MultipartReader reader(kLargest);
  CRawBuffer buffer(65536, 1 << 20);
  MultipartAnswer answer;
  for (std::size_t at = 0; at < text.size(); at += piece) {
    const std::string bytes = text.substr(at, piece);
    buffer.Append(bytes.data(), static_cast<long>(bytes.size()));
    for (Step step = reader.Next(buffer); step != Step::kWait; step = reader.Next(buffer)) {
      answer.status = reader.Status();
      if (step == Step::kPart) {
        answer.parts.emplace_back(reinterpret_cast<const char*>(buffer.Data()),
                                  static_cast<std::size_t>(reader.PartLength()));
        buffer.Erase(0, reader.PartLength());
      }
    }
  }
  return answer;
}

std::string Head(const std::string& type) {
  return "HTTP/1.0 200 OK\r\nServer: x\r\nContent-Type: " + type + "\r\n\r\n";
}

TEST(MultipartReader, CutsTheStylesOfCameras) {
  const std::string type = "multipart/x-mixed-replace; boundary=";
  const struct {
    const char* style;
    std::string text;
  } cases[] = {
      {"with lengths", Head(type + "b") +
                           "--b\r\nContent-Type: image/jpeg\r\nContent-Length: 3\r\n\r\none\r\n"
                           "--b\r\ncontent-length:5\r\n\r\nt--wo\r\n--b\r\n"},
      {"without", Head(type + "\"b\"; x=y") +
                      "\r\n--b\r\nA: b\r\n\r\none\r\n--b\r\nA: b\r\n\r\nt--wo\r\n--b\r\n"},
      {"announced with dashes",
       Head(type + "--b") +
           "--b\r\nContent-Length: 3\r\n\r\none\r\n--b\r\nContent-Length: 5\r\n\r\nt--wo"},
      {"empty and too long parts between",
       Head(type + "b") + "--b\r\nA: b\r\n\r\n\r\n--b\r\nContent-Length: 3\r\n\r\none\r\n" +
           "--b\r\nContent-Length: 2000\r\n\r\n" + std::string(2000, 'x') +
           "\r\n--b\r\nContent-Length: 5\r\n\r\nt--wo"},
  };
  for (const auto& each : cases) {
    for (const std::size_t piece : {std::size_t{1}, std::size_t{7}, each.text.size()}) {
      const MultipartAnswer answer = Read(each.text, piece);
      EXPECT_EQ(answer.status, 200) << each.style;
      EXPECT_THAT(answer.parts, ElementsAre("one", "t--wo")) << each.style << " by " << piece;
    }
  }
}

TEST(MultipartReader, TellsWhatIsNoStreamOfParts) {
  EXPECT_EQ(Read("HTTP/1.1 401 No\r\nWWW-Authenticate: Basic realm=x\r\n\r\n--b", 9).status, 401);
  EXPECT_EQ(Read(Head("text/html") + "<html>", 9).status, 502);
  EXPECT_EQ(Read("SSH-2.0-x\r\n\r\n", 9).status, 502);
  EXPECT_EQ(Read(std::string(70'000, 'x'), 1000).status, 502);
}

}  // namespace
