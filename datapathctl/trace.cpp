#include "datapathctl/trace.h"

#include <cstdio>
#include <ctime>
#include <iostream>
#include <utility>

namespace datapathctl {
namespace {

using std::chrono::system_clock;

std::string microseconds_of(system_clock::time_point time) {
  const auto rest = time - std::chrono::floor<std::chrono::seconds>(time);
  char text[8];
  snprintf(text, sizeof(text), ".%06d",
           static_cast<int>(std::chrono::floor<std::chrono::microseconds>(rest).count()));
  return text;
}

nlohmann::ordered_json to_json(const Message& message, const Origin& origin, bool hex) {
  nlohmann::ordered_json object = message.json;
  object["direction"] = origin.is_sent ? "sent" : "received";
  if (origin.time) {
    object["time"] = date_and_time(*origin.time);
  }
  if (origin.client) {
    object["client"] = *origin.client;
  }
  if (origin.pid != 0) {
    object["pid"] = origin.pid;
  }
  if (hex) {
    object["bytes"] = to_hex(message.bytes);
  }
  return object;
}

}  // namespace

std::string date_and_time(system_clock::time_point time) {
  const time_t seconds = system_clock::to_time_t(time);
  tm parts{};
  char text[32];
  strftime(text, sizeof(text), "%FT%T", gmtime_r(&seconds, &parts));
  return text + microseconds_of(time) + "Z";
}

std::string time_of_day(system_clock::time_point time) {
  const time_t seconds = system_clock::to_time_t(time);
  tm parts{};
  char text[32];
  strftime(text, sizeof(text), "%T", localtime_r(&seconds, &parts));
  return text + microseconds_of(time);
}

void MessagePrinter::print(const std::vector<Message>& messages, const Origin& origin) {
  for (const Message& message : messages) {
    const std::string text = text_of(message, origin);
    if (settings_.trace == Trace::kFull || message.subject != Subject::kLookUp ||
        message.is_failure) {
      finish();
      std::cout << text;
    } else if (!message.is_request) {
      look_up_.clear();
    } else if (!settings_.dry_run) {
      finish();
      look_up_ = text;
    }
  }
  std::cout.flush();
}

void MessagePrinter::finish() { std::cout << std::exchange(look_up_, {}) << std::flush; }

std::string MessagePrinter::text_of(const Message& message, const Origin& origin) const {
  if (settings_.json) {
    return json_text(to_json(message, origin, settings_.hex)) + "\n";
  }
  std::string text = origin.time ? time_of_day(*origin.time) + " " : "";
  if (origin.client) {
    text += "client " + (*origin.client != 0 ? std::to_string(*origin.client) : "-") + " ";
  }
  if (origin.pid != 0) {
    text += "(pid " + std::to_string(origin.pid) + ") ";
  }
  text += origin.is_sent ? "> " : "< ";
  text += settings_.trace == Trace::kFull ? to_text(message) : to_line(message) + "\n";
  return settings_.hex ? text + "    bytes " + to_hex(message.bytes) + "\n" : text;
}

}  // namespace datapathctl
