#include "network/team.h"

#include <linux/genetlink.h>
#include <linux/if_team.h>

#include "network/attributes.h"

namespace {

uint16_t FindFamily(NetlinkSocket& socket) {
    uint16_t family = 0;
    NetlinkRequest request = FamilyRequest("looking for team", TEAM_GENL_NAME);
    (void)socket.Ask(request, [&](const NetlinkMessage& message) {
        const Attributes attributes(AfterHeader(message.payload, sizeof(genlmsghdr)));
        family = static_cast<uint16_t>(attributes.Find(CTRL_ATTR_FAMILY_ID).Number().value_or(0));
    });
    return family;
}

// A flag is set when it is there.
bool HasFlag(const Attributes& attributes, uint16_t type) {
    for (const Attribute& attribute : attributes) {
        if (attribute.type == type) return true;
    }
    return false;
}

void SetOfMember(const KemdNetworkSnapshot& snapshot, const KemdNetworkInterface& team,
                 const Attribute& index, uint32_t field, bool isSet) {
    KemdNetworkInterface* member = snapshot.Find(index.Number().value_or(0));
    const bool isMember = member != nullptr && member->Number(KEMD_NET_MASTER) == team.Index();
    if (isMember) member->Set(field, isSet ? 1 : 0);
}

void ReadOption(const Attributes& option, const KemdNetworkSnapshot& snapshot,
                KemdNetworkInterface& team) {
    const std::string_view name = option.Find(TEAM_ATTR_OPTION_NAME).Text();
    const Attribute data = option.Find(TEAM_ATTR_OPTION_DATA);
    if (name == "mode") team.SetText(KEMD_NET_TEAM_MODE, data.Text());
    const uint64_t active = name == "activeport" ? data.Number().value_or(0) : 0;
    if (active != 0) team.Set(KEMD_NET_TEAM_ACTIVE, active);
    if (name != "enabled") return;
    SetOfMember(snapshot, team, option.Find(TEAM_ATTR_OPTION_PORT_IFINDEX),
                KEMD_NET_TEAM_MEMBER_ENABLED, HasFlag(option, TEAM_ATTR_OPTION_DATA));
}

void ReadPort(const Attributes& port, const KemdNetworkSnapshot& snapshot,
              const KemdNetworkInterface& team) {
    SetOfMember(snapshot, team, port.Find(TEAM_ATTR_PORT_IFINDEX), KEMD_NET_TEAM_MEMBER_LINK,
                HasFlag(port, TEAM_ATTR_PORT_LINKUP));
}

void SetErrors(const KemdNetworkSnapshot& snapshot, KemdNetworkInterface& team, int error) {
    for (const uint32_t field : {KEMD_NET_TEAM_MODE, KEMD_NET_TEAM_ACTIVE}) {
        team.SetError(field, error);
    }
    for (const auto& member : snapshot.interfaces) {
        if (member->Number(KEMD_NET_MASTER) != team.Index()) continue;
        for (const uint32_t field : {KEMD_NET_TEAM_MEMBER_ENABLED, KEMD_NET_TEAM_MEMBER_LINK}) {
            member->SetError(field, error);
        }
    }
}

int AskAbout(KemdNetworkInterface& team, NetlinkSocket& socket, uint16_t family,
             const KemdNetworkSnapshot& snapshot) {
    int error = 0;
    for (const uint8_t command : {TEAM_CMD_OPTIONS_GET, TEAM_CMD_PORT_LIST_GET}) {
        NetlinkRequest request("team", family, 0);
        request.AddHeader(genlmsghdr{command, TEAM_GENL_VERSION, 0});
        request.AddNumber(TEAM_ATTR_TEAM_IFINDEX, team.Index());
        error = socket.Ask(request, [&](const NetlinkMessage& message) {
            ReadTeam(message.payload, snapshot, team);
        });
        if (error != 0) break;
    }
    return error;
}

}  // namespace

void ReadTeam(std::string_view payload, const KemdNetworkSnapshot& snapshot,
              KemdNetworkInterface& team) {
    const Attributes attributes(AfterHeader(payload, sizeof(genlmsghdr)));
    for (const Attribute& option : Attributes(attributes.Find(TEAM_ATTR_LIST_OPTION).bytes)) {
        ReadOption(Attributes(option.bytes), snapshot, team);
    }
    for (const Attribute& port : Attributes(attributes.Find(TEAM_ATTR_LIST_PORT).bytes)) {
        ReadPort(Attributes(port.bytes), snapshot, team);
    }
}

void ReadTeams(NetlinkSocket& socket, const KemdNetworkSnapshot& snapshot) {
    uint16_t family = 0;
    for (const auto& team : snapshot.interfaces) {
        if (team->Text(KEMD_NET_KIND) != "team") continue;
        // Not without a team: the kernel loads the driver when it is asked for the family.
        if (family == 0) family = FindFamily(socket);
        if (family == 0) return;
        const int error = AskAbout(*team, socket, family, snapshot);
        if (error != 0) SetErrors(snapshot, *team, error);
    }
}
