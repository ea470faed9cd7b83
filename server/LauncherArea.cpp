// The launcher service area of qmmember-server.
#include "MemberServer.h"

namespace {

class LauncherArea : public ServiceArea
{
public:
    explicit LauncherArea(MemberServer& server)
        : m_server(server)
    {
    }

    bool Open(std::string&) override { return true; }
    void AddRoutes(httplib::Server&, bool) override {}

private:
    MemberServer& m_server;
};

} // namespace

std::unique_ptr<ServiceArea> MakeLauncherArea(MemberServer& server)
{
    return std::make_unique<LauncherArea>(server);
}
