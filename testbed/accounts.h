// The accounts of the testbed, with their passwords in plain text. They exist
// in its private root only (root/etc/passwd and root/etc/shadow) and protect nothing.
#pragma once

namespace testbed {

struct Account {
    const char* name;
    const char* password;
    const char* privilege;  // as its sessions carry it
    const char* uri;
};

inline constexpr Account administrator{"admin", "Orchid-7-lantern", "511",
                                       "/redfish/v1/AccountService/Accounts/1"};
inline constexpr Account operatorAccount{"operator", "Copper-4-meadow", "121",
                                         "/redfish/v1/AccountService/Accounts/2"};
inline constexpr Account reader{"reader", "Willow-2-harbor", "9",
                                "/redfish/v1/AccountService/Accounts/3"};
// Its password is right but has expired.
inline constexpr Account expired{"expired", "Saffron-9-bridge", "121",
                                 "/redfish/v1/AccountService/Accounts/4"};

}  // namespace testbed
