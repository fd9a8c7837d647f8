#include "tests/end_to_end/lock_service_fixture.h"

#include <algorithm>

namespace klv {

uint32_t ServerProcess::StatusOf(uint32_t code, size_t length, const std::string& reply) {
  EXPECT_EQ(wire::Hex(reply.substr(0, 8) + reply.substr(std::min<size_t>(12, reply.size()))),
            wire::Hex(wire::Words({code, kTag}) + std::string(length - 12, '\0')));
  return wire::WordAt(reply, 8);
}

std::string ClientRow(const std::string& name_field, const char* state, const std::string& session,
                      const ServerProcess& process) {
  return "  " + name_field + " " + state + session +
         "    127.0.0.1:" + std::to_string(process.Port()) + "\n";
}

std::string LockServiceTest::ReportAfterBanner() {
  EXPECT_TRUE(daemon_.StillAnswers());
  std::string report;
  EXPECT_TRUE(daemon_.ReadStatusReport(&report));
  const size_t line_end = std::min(report.find('\n'), report.size());
  EXPECT_EQ(WithoutTimeStamps(report.substr(0, line_end)),
            "<time> Ostrand Kelvane Lock Daemon 2.01.905");
  return report.substr(line_end + (line_end < report.size()));
}

}  // namespace klv
