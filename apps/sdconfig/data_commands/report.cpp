// report: a page that tells what each key is, and why.
#include "apps/sdconfig/data_commands/data_commands.h"
#include "apps/sdconfig/files/whole_file.h"
#include "apps/sdconfig/report/gather.h"
#include "apps/sdconfig/report/page.h"
#include "apps/sdconfig/terminal/messages.h"
#include "apps/sdconfig/terminal/output.h"

namespace cli {

namespace {

bool isForOutput(const Request& request) {
    return request.file.empty() || request.file == "-";
}

int printWritten(const Request& request, const Report& report) {
    Object object;
    addBytes(object, "file", request.file);
    object["keys"] = report.keys.size();
    object["problems"] = report.problems();
    object["unseen"] = report.unseen.size();
    object["done"] = true;
    return print(request,
                 "wrote " + shownInLine(request.file) + ": keys " + std::to_string(report.keys.size()) + ", problems " +
                     std::to_string(report.problems()) + "\n",
                 object);
}

}  // namespace

int writeReport(const Request& request, Service& service) {
    if (isForOutput(request) && (request.json || isTerminal()))
        return fail(kUsage, "report", "standard output is no place for a page here", "name a file with -o");
    const DataAccess access = accessData(request, service);
    if (access.exitCode) return access.exitCode;
    const Report report = gatherReport(request, service, access);
    const std::string page = pageOf(report);
    if (isForOutput(request)) return printText(page);
    if (const std::string problem = writeWhole(request.file, page, Mode::Private); !problem.empty())
        return fileNotWritten(request, problem);
    return printWritten(request, report);
}

}  // namespace cli
