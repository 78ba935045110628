// The two files that tell the groups of the roles and the roles' privileges.
#include "support/login_test.h"

namespace testbed {
namespace {

// Every login of these tests falls back to this privilege when no group matches.
constexpr char noMatch[] = "1";

class GroupSettings : public LoginTest {
  protected:
    // The privilege of a login whose PAM environment holds the variable.
    std::string privilegeWith(const std::string& variable) {
        usePamTest("[env=" + variable + "] env=PRIVILEGES=" + noMatch);
        return privilegeOf();
    }
    // The same with a group file that holds the lines behind the defaults.
    std::string privilegeWith(const std::string& variable, const std::string& lines) {
        controller.writeFile(groupFile,
                             "Attribute=aci_group;\nAdministrator=aciadmin;\n"
                             "Operator=aciopera;\nUser=aciuser;\n" +
                                 lines);
        return privilegeWith(variable);
    }
};

TEST_F(GroupSettings, WithoutFilesAreTheDefaults) {
    controller.removeFile(groupFile);
    controller.removeFile(privilegeFile);
    EXPECT_EQ(privilegeWith("aci_group=aciadmin;"), "511");
    EXPECT_EQ(privilegeWith("aci_group=aciopera;"), "121");
    EXPECT_EQ(privilegeWith("aci_group=aciuser;"), "9");
    // The Kerberos query is off.
    EXPECT_EQ(privilegeWith("pam_module=kerberos"), "511");
}

TEST_F(GroupSettings, NameTheAttributeAndTheGroupsOfTheRoles) {
    const std::string lines =
        "Attribute=memberOf;\nAdministrator=staff;\nOperator=shift;\nUser=guests;\n";
    EXPECT_EQ(privilegeWith("memberOf=staff;", lines), "511");
    EXPECT_EQ(privilegeWith("memberOf=shift;", lines), "121");
    EXPECT_EQ(privilegeWith("memberOf=guests;", lines), "9");
    EXPECT_EQ(privilegeWith("MEMBEROF=guests;", lines), "9");
    EXPECT_EQ(privilegeWith("memberOf=aciadmin;", lines), noMatch);
    EXPECT_EQ(privilegeWith("aci_group=staff;", lines), noMatch);
}

TEST_F(GroupSettings, KeepTheSemicolonThatEndsAGroup) {
    EXPECT_EQ(privilegeWith("aci_group=staff;", "Administrator=staff;\n"), "511");
    EXPECT_EQ(privilegeWith("aci_group=staff", "Administrator=staff;\n"), noMatch);
    EXPECT_EQ(privilegeWith("aci_group=staffers;", "Administrator=staff;\n"), noMatch);
}

TEST_F(GroupSettings, AreReadAgainAtEachLogin) {
    EXPECT_EQ(privilegeWith("aci_group=staff;", ""), noMatch);
    EXPECT_EQ(privilegeWith("aci_group=staff;", "Operator=staff;\n"), "121");
    controller.writeFile(privilegeFile, "operator=3\n");
    EXPECT_EQ(privilegeWith("aci_group=staff;"), "3");
}

TEST_F(GroupSettings, ThatNoFileGivesAnyMoreStayAsTheyWere) {
    controller.writeFile(privilegeFile, "operator=3\nuser=4\n");
    EXPECT_EQ(privilegeWith("aci_group=staff;", "Operator=staff;\n"), "3");
    controller.writeFile(groupFile, "");
    controller.writeFile(privilegeFile, "user=5\n");
    EXPECT_EQ(privilegeWith("aci_group=staff;"), "3");
    controller.removeFile(groupFile);
    controller.removeFile(privilegeFile);
    EXPECT_EQ(privilegeWith("aci_group=staff;"), "3");
    EXPECT_EQ(privilegeWith("aci_group=aciuser;"), "5");
    EXPECT_EQ(privilegeWith("aci_group=aciadmin;"), "511");
}

TEST_F(GroupSettings, AreTheDefaultsAgainAfterARestart) {
    controller.writeFile(privilegeFile, "operator=3\n");
    EXPECT_EQ(privilegeWith("aci_group=staff;", "Operator=staff;\n"), "3");
    controller.removeFile(groupFile);
    controller.removeFile(privilegeFile);
    stopDaemon();
    start();
    EXPECT_EQ(privilegeWith("aci_group=staff;"), noMatch);
    EXPECT_EQ(privilegeWith("aci_group=aciopera;"), "121");
}

TEST_F(GroupSettings, AreFoundInLinesOfManyForms) {
    struct Case {
        const char* lines;
        const char* group;  // the administrator's
    };
    for (const Case& given : {
             Case{"Administrator=one;\nAdministrator=two;\n", "two;"},  // the last one
             Case{"Administrator=staff; and more; text\n", "staff;"},   // up to the first ;
             Case{"Administrator=staff;", "staff;"},                    // no line end
             Case{"# Administrator=staff;\n", "staff;"},                // no comments
             Case{"TheAdministrator=staff;\n", "staff;"},               // key inside a word
             Case{"Administrators are = staff;\n", " staff;"},          // blanks stay
             Case{"role=staff;Administrator\n", "staff;"},              // key behind the value
             Case{"a;b=staff;Administrator=other;\n", "staff;"},        // the first =
             Case{"Administrator=a=b;\n", "a=b;"},                      // only the first =
             Case{"Administrator=;\n", ";"},                            // empty
         }) {
        EXPECT_EQ(privilegeWith("aci_group=" + std::string(given.group), given.lines), "511")
            << given.lines;
    }
}

TEST_F(GroupSettings, AreNotReadFromLinesWithoutAKeyOrAnEnd) {
    for (const char* line : {"Administrator=staff\n", "administrator=staff;\n", "Admin=staff;\n",
                             "Administrator:staff;\n", "Administrator;=staff\n"}) {
        EXPECT_EQ(privilegeWith("aci_group=staff;", line), noMatch) << line;
        EXPECT_EQ(privilegeWith("aci_group=aciadmin;", line), "511") << line;
    }
}

TEST_F(GroupSettings, SetTheOperatorAndTheUserFromCommentsToo) {
    EXPECT_EQ(privilegeWith("aci_group=x;", "#Operator=x;\n"), "121");
    EXPECT_EQ(privilegeWith("aci_group=x;", "#UserGroups=x;\n"), "9");
    EXPECT_EQ(privilegeWith("other=aciuser;", "#Attribute=other;\n"), "9");
}

TEST_F(GroupSettings, GoOnWithoutAnAttribute) {
    EXPECT_EQ(privilegeWith("aci_group=aciadmin;", "Attribute=;\n"), noMatch);
}

TEST_F(GroupSettings, SwitchTheKerberosQuery) {
    struct Case {
        const char* lines;
        bool on;
    };
    useFakeKadmin("aci_group: aciuser;");
    for (const Case& given : {
             Case{"KrbAttrGrouping=1;\n", true},
             Case{"KrbAttrGrouping=1;", true},
             Case{"# KrbAttrGrouping=1; comments count\n", true},
             Case{"KrbAttrGrouping=0;\nKrbAttrGrouping=1;\n", true},
             Case{"KrbAttrGrouping=1;\nKrbAttrGrouping=0;\n", true},
             Case{"", false},
             Case{"KrbAttrGrouping=0;\n", false},
             Case{"KrbAttrGrouping=1\n", false},
             Case{"KrbAttrGrouping = 1;\n", false},
             Case{"KrbAttrGrouping=11;\n", false},
             Case{"krbattrgrouping=1;\n", false},
             Case{"KrbAttrGrouping=\n1;\n", false},
         }) {
        const std::size_t callsBefore = kadminCalls().size();
        EXPECT_EQ(privilegeWith("pam_module=kerberos", given.lines), given.on ? "9" : "511")
            << given.lines;
        EXPECT_EQ(kadminCalls().size() - callsBefore, given.on ? 1U : 0U) << given.lines;
    }
    controller.removeFile(groupFile);
    EXPECT_EQ(privilegeWith("pam_module=kerberos"), "511");
}

class RolePrivileges : public GroupSettings {
  protected:
    std::string administratorOf(const std::string& lines) {
        controller.writeFile(privilegeFile, lines);
        return privilegeWith("aci_group=aciadmin;");
    }
    std::string operatorOf(const std::string& lines) {
        controller.writeFile(privilegeFile, lines);
        return privilegeWith("aci_group=aciopera;");
    }
    std::string userOf(const std::string& lines) {
        controller.writeFile(privilegeFile, lines);
        return privilegeWith("aci_group=aciuser;");
    }
};

TEST_F(RolePrivileges, AreDecimalOctalOrHexadecimalNumbers) {
    EXPECT_EQ(administratorOf("administrator=0777\n"), "511");
    EXPECT_EQ(administratorOf("administrator=255"), "255");
    EXPECT_EQ(operatorOf("operator=0x10\n"), "16");
    EXPECT_EQ(operatorOf("operator=0X1f\n"), "31");
    EXPECT_EQ(userOf("user=08\n"), "0");
}

TEST_F(RolePrivileges, MayHaveBlanksAndASignInFrontAndTextBehind) {
    EXPECT_EQ(userOf("user= \t12\n"), "12");
    EXPECT_EQ(userOf("user=+13 bits\n"), "13");
    EXPECT_EQ(userOf("user=14;\n"), "14");
    EXPECT_EQ(userOf("user=-2\n"), "-2");
}

TEST_F(RolePrivileges, WithoutANumberAreZero) {
    EXPECT_EQ(administratorOf("administrator=\n"), "0");
    EXPECT_EQ(operatorOf("operator=x1\n"), "0");
    EXPECT_EQ(userOf("user=abc\n"), "0");
}

TEST_F(RolePrivileges, HaveThirtyTwoBits) {
    EXPECT_EQ(userOf("user=2147483647\n"), "2147483647");
    EXPECT_EQ(userOf("user=0xFFFFFFFF\n"), "-1");
    EXPECT_EQ(userOf("user=0x100000005\n"), "5");
}

TEST_F(RolePrivileges, StandAtAFixedPlaceOfTheLine) {
    EXPECT_EQ(userOf(" user=5\n"), "0");
    EXPECT_EQ(userOf("# user=5\n"), "0");
    EXPECT_EQ(userOf("12345678 user=5\n"), "678");
    EXPECT_EQ(administratorOf("#23456789012346 administrator=5\n"), "6");
}

TEST_F(RolePrivileges, OfALineWithSeveralKeysGoToTheHighestRole) {
    EXPECT_EQ(operatorOf("user=7   12 operator=\n"), "12");
    EXPECT_EQ(privilegeWith("aci_group=aciuser;"), "9");
    EXPECT_EQ(administratorOf("operator=6    21 administrator=\n"), "21");
    EXPECT_EQ(privilegeWith("aci_group=aciopera;"), "12");
}

TEST_F(RolePrivileges, OfLaterLinesReplaceThoseOfEarlierOnes) {
    EXPECT_EQ(userOf("user=5\nother=6\nuser=7\n"), "7");
}

TEST_F(RolePrivileges, AreNotReadFromLinesWithoutAKey) {
    EXPECT_EQ(userOf("User=5\nuser =6\nuser 7\nuser\n\n"), "9");
}

TEST_F(RolePrivileges, KnowNoOtherBases) {
    EXPECT_EQ(userOf("user=0b11\n"), "0");
    EXPECT_EQ(userOf("user=0B11\n"), "0");
    EXPECT_EQ(userOf("user=-0b11\n"), "0");
    EXPECT_EQ(userOf("user=0o17\n"), "0");
    EXPECT_EQ(userOf("user=0x10\n"), "16");
    EXPECT_EQ(userOf("user=-0x10\n"), "-16");
    EXPECT_EQ(userOf("user=010\n"), "8");
    EXPECT_EQ(userOf("user=+010\n"), "8");
    EXPECT_EQ(userOf("user=0x\n"), "0");
    EXPECT_EQ(userOf("user=0xg\n"), "0");
}

TEST_F(RolePrivileges, AreReadByALoginThatIsRefusedToo) {
    controller.writeFile(privilegeFile, "user=5\n");
    usePamTest("auth=PAM_AUTH_ERR");
    EXPECT_EQ(privilegeOf(), "AUTH_FAILED");
    controller.removeFile(privilegeFile);
    EXPECT_EQ(privilegeWith("aci_group=aciuser;"), "5");
}

}  // namespace
}  // namespace testbed
