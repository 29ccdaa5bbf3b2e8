#include "agent/tarnctl/session.h"

#include "agent/tarnctl/status_names.h"

#include <ostream>

namespace tarnctl
{
Session::Session(Connect connect, std::ostream& output, std::ostream& error)
    : connect_(std::move(connect)), output_(output), error_(error)
{
}

Transport& Session::Way()
{
    if (!transport_)
    {
        transport_ = connect_();
        driver_ = std::make_unique<DriverClient>(*transport_);
    }
    return *transport_;
}

DriverClient& Session::Driver()
{
    Way();
    return *driver_;
}

void Session::Line(const std::string& text)
{
    output_ << text << '\n' << std::flush;
    if (!output_)
    {
        throw Failure(ExitCode::Trouble, "the output cannot be written");
    }
}

void Session::Answer(const std::string& text, const JsonObject& json)
{
    Line(Json ? json.Line() : text);
}

void Session::Warn(const std::string& text)
{
    error_ << "tarnctl: " << text << std::endl;
}

void Session::Report(const Failure& failure)
{
    error_ << "tarnctl: " << failure.what() << std::endl;
    if (!Json)
    {
        return;
    }
    JsonObject reason;
    if (const auto* refusal = dynamic_cast<const Refusal*>(&failure))
    {
        reason.Text("request", refusal->Request())
            .Text("status", StatusName(refusal->Status()))
            .Text("code", StatusNumber(refusal->Status()));
    }
    reason.Text("message", failure.what()).Number("exit", static_cast<unsigned>(failure.Code()));
    output_ << JsonObject().Raw("error", reason.Line()).Line() << std::endl;
}
}
