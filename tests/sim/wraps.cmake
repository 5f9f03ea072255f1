# The operations that the simulated world decides about. Each name has its __wrap_ counterpart in wraps.cpp.
set(SIM_WRAPPED
  stg_malloc stg_realloc stg_free stg_strdup stg_alloc stg_area_strdup
  date_get_timeval
  sysutl_host_addr sysutl_sock_port_uniquifier sysutl_clnttcp_create_ext sysutl_set_cloexec_file sysutl_copy_sockaddr
  ks_clntudp_create_sockaddr ks_clnttcp_create_sockaddr ks_connect
  imsg_get_desired_verbosity imsg_should_trace imsg_prompt_password
  credmap_auth_create_default credutl_getgroups credmap_authunix_create_nobody credutl_is_privileged
  tbs_platform_info tbs_product_comp_test tbs_product_config_dir tbs_product_host_priv_dir tbs_uuid_to_str
  fileutl_is_localhost fileutl_path_host getenv_safe
  rt_sched rt_handle_fd pfm_on_exit ks_system_init imsg_set_app_name ivlthread_mutex_lock
  sysutl_set_socket_nonblocking sysutl_host_numeric
  credmap_local_to_remote_sid ivlthread_alloc_tls ivlthread_free_tls ivlthread_set_tls strutl_write hash_set_order readdir
  clp_get_next_flag_value clp_get_last_flag_name credutl_set_server_group_lifetime
  sched_c_clnt_exit_before sched_c_clnt_exit_after sched_c_clnt_exit_error ks_clnt_create
  gethostname fclose time sleep socket bind getsockname connect close getaddrinfo freeaddrinfo select getsockopt)
set(SIM_WRAP_OPTIONS)
foreach(NAME IN LISTS SIM_WRAPPED)
  list(APPEND SIM_WRAP_OPTIONS -Wl,--wrap=${NAME})
endforeach()
