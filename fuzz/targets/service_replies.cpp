// Whatever the service answers: the first two bytes pick the HTTP status, the rest is the
// body. It goes through the client's validation (status rules, JSON decode, error bodies and
// the message shown for them), then through every record decoder that reads a reply.
#include "fuzz_support.h"
#include "service/account_client.h"
#include "service/api_client.h"
#include "service/reply_records.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    using namespace vell::service;
    if (size < 2) return 0;
    vell::http::Response response;
    response.status = (data[0] << 8 | data[1]) % 700;
    response.body.assign(reinterpret_cast<const char*>(data + 2), size - 2);

    auto validated = APIClient::validate(response);
    if (!validated) {
        (void)validated.error().description(vell::Language::English);
        (void)validated.error().description(vell::Language::Spanish);
    }
    (void)decodeErrorBody(response.body);
    (void)decodeResumablePart(response.body);
    auto json = vell::fuzz::parseJson(data + 2, size - 2);
    if (json.is_discarded()) return 0;
    (void)decodeResumableStart(json);
    (void)decodeCreatedID(json);
    (void)AccountClient::decodeMe(json);
    (void)stringField(json, "id");
    (void)integerField(json, "bytesReceived");
    return 0;
}
