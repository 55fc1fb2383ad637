#include "registrar/nw_profile.h"

namespace {

constexpr IMSE_NW_PROFILE_KEY_T kKeys[] = {
    {&IMSE_REG_NW_PROFILE_T::operation_mode, "//operation-mode"},
    {&IMSE_REG_NW_PROFILE_T::reg_initial_retry_after, "//reg/initial-retry-after"},
    {&IMSE_REG_NW_PROFILE_T::reg_refresh_retry_after, "//reg/refresh-retry-after"},
    {&IMSE_REG_NW_PROFILE_T::reg_max_attempts, "//reg/max-attempts"},
    {&IMSE_REG_NW_PROFILE_T::reg_ignore_retry_after, "//reg/ignore-retry-after"},
    {&IMSE_REG_NW_PROFILE_T::link_max_attempts, "//link/max-attempts"},
    {&IMSE_REG_NW_PROFILE_T::link_interval, "//link/interval"},
    {&IMSE_REG_NW_PROFILE_T::reg_expiry, "//reg-expiry"},
    {&IMSE_REG_NW_PROFILE_T::compression, "//compression"},
    {&IMSE_REG_NW_PROFILE_T::policy, "//policy"},
    {&IMSE_REG_NW_PROFILE_T::nw_reg_event_support, "//nw-reg-event-support"},
    {&IMSE_REG_NW_PROFILE_T::uicc_applications, "//uicc-applications"},
    {&IMSE_REG_NW_PROFILE_T::sa_in_algo, "//sa-in-algo"},
    {&IMSE_REG_NW_PROFILE_T::sa_enc_algo, "//sa-enc-algo"},
    {&IMSE_REG_NW_PROFILE_T::impi, "//impi"},
    {&IMSE_REG_NW_PROFILE_T::impu, "//impu"},
    {&IMSE_REG_NW_PROFILE_T::access_network, "//access-network"},
    {&IMSE_REG_NW_PROFILE_T::authorized_ap, "//authorized-AP"},
    {&IMSE_REG_NW_PROFILE_T::ieee_access_type, "//IEEE/access-type"},
    {&IMSE_REG_NW_PROFILE_T::ap_id_type, "//IEEE/AP-id-type"},
    {&IMSE_REG_NW_PROFILE_T::authorized_plmns, "//authorized-plmns"},
    {&IMSE_REG_NW_PROFILE_T::access_type_3gpp, "//_3gpp/access-type"},
    {&IMSE_REG_NW_PROFILE_T::ue_sip_port, "//ue-sip-port"},
    {&IMSE_REG_NW_PROFILE_T::ue_trans_pref, "//ue-trans-pref"},
    {&IMSE_REG_NW_PROFILE_T::ue_threshold_pref, "//ue-threshold-pref"},
    {&IMSE_REG_NW_PROFILE_T::registrar_address, "//registrar-address"},
    {&IMSE_REG_NW_PROFILE_T::registrar_realm, "//registrar-realm"},
    {&IMSE_REG_NW_PROFILE_T::domain_name, "//domain-name"},
    {&IMSE_REG_NW_PROFILE_T::disc_pref, "//disc-pref"},
    {&IMSE_REG_NW_PROFILE_T::dns_realm, "//dns-realm"},
    {&IMSE_REG_NW_PROFILE_T::dns_services, "//dns-services"},
    {&IMSE_REG_NW_PROFILE_T::ip_address, "//ip-address"},
    {&IMSE_REG_NW_PROFILE_T::napi_profile_name, "//napi-profile-name"},
    {&IMSE_REG_NW_PROFILE_T::initial_route_set, "//initial-route-set"},
};

}  // namespace

std::span<const IMSE_NW_PROFILE_KEY_T> imse_nw_profile_keys() {
  return kKeys;
}
