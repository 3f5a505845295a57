#include "core/session.h"
#include "config/config_path.h"
#include "fake_system.h"

namespace {

const std::string kMixedText = "ERROR: Temporary and permanent requests mixed up during session!";

class Session : public SeamTest {
  protected:
    void start(uint8_t writes) { ASSERT_EQ(send(START_SESSION, kAddress, 0, writes).mt, POS_ANSW); }
    // GUI "show device info": a write whose effect is easy to see.
    AnswerMessage writeGui(uint8_t mt, const char* value) { return send(mt, 8, 1, 0, value); }

    static constexpr uint8_t kAddress = 42;
};

TEST_F(Session, StartOpensAFreshSessionAndAnswersNeedNoAnswer) {
    m().changed.setAll();
    EXPECT_EQ(shown(send(START_SESSION, kAddress, 7, 3)), "POS to 42 1/7/3: ");
    EXPECT_EQ(m().session.counter, 1u);
    EXPECT_EQ(m().changed.place, ChangeFlags{}.place);
    start(0);
    EXPECT_EQ(m().session.counter, 2u);
    EXPECT_EQ(shown(send(READ_PARAM, 12, 3, 4)), "POS to 42 12/3/4: ");
    for (uint8_t mt : {uint8_t{POS_ANSW}, uint8_t{NEG_ANSW}, uint8_t{8}, uint8_t{255}})
        EXPECT_EQ(shown(send(mt, 1, 2, 3)), "0 to 0 0/0/0: ") << +mt;  // type 0 cannot be sent
}

TEST_F(Session, AcceptsOneWriteMoreThanAnnounced) {
    for (int announced : {0, 2}) {
        start(static_cast<uint8_t>(announced));
        for (int i = 0; i <= announced; ++i)
            EXPECT_EQ(send(SET_PARAM, 6).mt, POS_ANSW) << i;
        EXPECT_EQ(shown(send(SET_PARAM, 6)),
                  "NEG to 42 6/0/0: ERROR: Exeeded number of write requests!");
        send(FINISH_SESSION);
    }
}

TEST_F(Session, FinishAppliesOnlyAnnouncedSessionsThatWrote) {
    fake.writeFile(kDefaultConfigPath, "");  // the daemon makes sure it exists; the end stores
    start(0);
    send(READ_PARAM, 1, 0, 0);
    EXPECT_EQ(send(FINISH_SESSION).mt, POS_ANSW);
    start(0);  // announced nothing: the one write stays in memory
    send(SET_PARAM, 1, 0, 0, "quiet");
    EXPECT_EQ(send(FINISH_SESSION).mt, POS_ANSW);
    EXPECT_TRUE(fake.hostNamesSet.empty());

    start(1);
    send(SET_TEMP_PARAM, 1, 0, 0, "loud");
    EXPECT_EQ(shown(send(FINISH_SESSION)), "POS to 42 0/0/0: ");
    EXPECT_EQ(fake.hostNamesSet, std::vector<std::string>{"loud"});
    EXPECT_EQ(m().session.temporary, 0);
}

TEST_F(Session, WriteKindsMixOnlyTemporaryAfterPermanentAndAFailedApplyKeepsThem) {
    start(5);
    EXPECT_EQ(writeGui(SET_PARAM, "0").mt, POS_ANSW);
    EXPECT_EQ(shown(writeGui(SET_TEMP_PARAM, "1")), "POS to 42 8/1/0: " + kMixedText);
    EXPECT_EQ(m().gui.show[0], 1);
    send(ABORT_SESSION);

    start(5);
    EXPECT_EQ(writeGui(SET_TEMP_PARAM, "0").mt, POS_ANSW);
    EXPECT_EQ(shown(writeGui(SET_PARAM, "1")), "NEG to 42 8/1/0: " + kMixedText);
    EXPECT_EQ(m().gui.show[0], 0);
    send(ABORT_SESSION);

    fake.setHostNameErrno = EPERM;
    start(1);
    send(SET_PARAM, 1, 0, 0, "denied");
    EXPECT_EQ(shown(send(FINISH_SESSION)),
              "NEG to 42 0/0/0: sethostname failed (Operation not permitted)");
    start(1);
    EXPECT_EQ(writeGui(SET_TEMP_PARAM, "1").da, kMixedText);
}

TEST_F(Session, AbandonedAndAbortedSessionsAreReloadedFromTheFile) {
    fake.writeFile(kDefaultConfigPath, "[General]\nDescription = from file\n");
    start(1);
    send(SET_PARAM, 0, 4, 0, "changed");
    start(1);  // the first session was never finished
    EXPECT_STREQ(m().general.Description, "from file");

    send(SET_PARAM, 0, 4, 0, "changed again");
    EXPECT_EQ(shown(send(ABORT_SESSION, 3, 4, 5)), "POS to 42 3/4/5: ");
    EXPECT_STREQ(m().general.Description, "from file");

    send(SET_PARAM, 0, 4, 0, "after abort");
    start(1);  // nothing open any more: no reload
    EXPECT_STREQ(m().general.Description, "after abort");
}

}  // namespace
