// The control interface's argument checks, as any caller on the session bus can reach them:
// the first byte picks the method, the next four a number, the rest one or two strings (split
// at the first zero byte). Whatever is accepted must hold to the bounds it promises.
#include <cstring>

#include "base/utf8.h"
#include "fuzz_support.h"
#include "platform/dbus/control_arguments.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    namespace a = vell::dbus::arguments;
    if (size < 5) return 0;
    const std::uint8_t method = data[0];
    std::int32_t number = 0;
    std::memcpy(&number, data + 1, sizeof number);
    const auto rest = vell::fuzz::text(data + 5, size - 5);
    const auto zero = rest.find('\0');
    const auto first = rest.substr(0, zero);
    const auto second = zero == std::string_view::npos ? std::string_view{} : rest.substr(zero + 1);
    auto checkText = [](const a::Checked<std::string>& t, std::size_t limit) {
        if (t && (t->size() > limit || !vell::isValidUtf8(*t))) __builtin_trap();
    };
    switch (method % 11) {
        case 0:
            if (auto code = a::verifyCode(first); code && !code->code == !code->backupCode) __builtin_trap();
            break;
        case 1: checkText(a::email(first), a::kMaximumEmail); (void)a::password(second); break;
        case 2: checkText(a::microphone(first), a::kMaximumMicrophone); break;
        case 3:
            if (auto m = a::minutes(number); m && (*m < 1 || *m > a::kMaximumMinutes)) __builtin_trap();
            break;
        case 4: checkText(a::exportPath(first), a::kMaximumPath); break;
        case 5: checkText(a::calendarSource(first), a::kMaximumCalendarSource); break;
        case 6: checkText(a::recordingID(first), a::kMaximumRecordingID); break;
        case 7: (void)a::windowName(first); break;
        case 8: (void)a::recoverRange(first, number); break;
        case 9:
            if (auto names = a::speakerNames(rest); names) {
                if (names->size() > a::kMaximumSpeakers) __builtin_trap();
                for (const auto& [n, name] : *names) {
                    if (n < 1 || n > int(a::kMaximumSpeakers) || name.size() > a::kMaximumSpeakerName) __builtin_trap();
                }
            }
            break;
        case 10: (void)a::text(rest, 256); break;
    }
    return 0;
}
