// gatewise-pam-check: runs one PAM stack of a test configuration folder and reports what happened,
// for the PAM module's tests (which start it with nss_wrapper preloaded, so that the module sees
// the test's own password database).
//
// Usage: gatewise-pam-check CONFDIR SERVICE USER FUNCTION [silent]
// FUNCTION is acct, auth, setcred, open_session or close_session. Prints one line per message of
// the conversation ("error TEXT", "info TEXT", "prompt TEXT") and then "result NAME" (PAM_SUCCESS
// ...).
#include <security/pam_appl.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

namespace {

const char* resultName(int code) {
  switch (code) {
    case PAM_SUCCESS:
      return "PAM_SUCCESS";
    case PAM_PERM_DENIED:
      return "PAM_PERM_DENIED";
    case PAM_USER_UNKNOWN:
      return "PAM_USER_UNKNOWN";
    case PAM_SERVICE_ERR:
      return "PAM_SERVICE_ERR";
    case PAM_IGNORE:
      return "PAM_IGNORE";
    case PAM_AUTH_ERR:
      return "PAM_AUTH_ERR";
    case PAM_SYSTEM_ERR:
      return "PAM_SYSTEM_ERR";
    default:
      return "PAM_OTHER";
  }
}

int record(int count, const pam_message** messages, pam_response** responses, void*) {
  auto* answers = static_cast<pam_response*>(std::calloc(std::size_t(count), sizeof(pam_response)));
  if (!answers) return PAM_BUF_ERR;
  for (int i = 0; i < count; ++i) {
    const char* style = "prompt";
    if (messages[i]->msg_style == PAM_ERROR_MSG) style = "error";
    if (messages[i]->msg_style == PAM_TEXT_INFO) style = "info";
    std::printf("%s %s\n", style, messages[i]->msg ? messages[i]->msg : "");
  }
  *responses = answers;
  return PAM_SUCCESS;
}

}  // namespace

int main(int argc, char** argv) {
  if (argc < 5) {
    std::fprintf(stderr, "usage: %s CONFDIR SERVICE USER FUNCTION [silent]\n", argv[0]);
    return 2;
  }
  std::string function = argv[4];
  int flags = argc > 5 && std::strcmp(argv[5], "silent") == 0 ? PAM_SILENT : 0;
  pam_conv conversation{record, nullptr};
  pam_handle_t* pamh = nullptr;
  int status = pam_start_confdir(argv[2], argv[3], &conversation, argv[1], &pamh);
  if (status != PAM_SUCCESS) {
    std::printf("start %s\n", resultName(status));
    return 1;
  }
  if (function == "acct") {
    status = pam_acct_mgmt(pamh, flags);
  } else if (function == "auth") {
    status = pam_authenticate(pamh, flags);
  } else if (function == "setcred") {
    status = pam_setcred(pamh, flags | PAM_ESTABLISH_CRED);
  } else if (function == "open_session") {
    status = pam_open_session(pamh, flags);
  } else if (function == "close_session") {
    status = pam_close_session(pamh, flags);
  } else {
    std::fprintf(stderr, "unknown function %s\n", function.c_str());
    pam_end(pamh, PAM_SUCCESS);
    return 2;
  }
  std::printf("result %s\n", resultName(status));
  pam_end(pamh, status);
  return 0;
}
