# The few AOSP te_macros/global_macros that sepolicy/ uses, with the same expansion as
# system/sepolicy/public/{te_macros,global_macros}; enough to compile the sketch on its own.
define(`r_file_perms', `{ getattr open read ioctl lock map watch watch_reads }')
define(`x_file_perms', `{ getattr execute execute_no_trans map }')
define(`rx_file_perms', `{ r_file_perms x_file_perms }')
define(`w_file_perms', `{ open append write lock map }')
define(`rw_file_perms', `{ r_file_perms w_file_perms }')
define(`create_file_perms', `{ create rename setattr unlink rw_file_perms }')
define(`r_dir_perms', `{ open getattr read search ioctl lock watch watch_reads }')
define(`rw_dir_perms', `{ r_dir_perms add_name remove_name write }')
define(`domain_trans', `
allow $1 $2:file { getattr open read execute map };
allow $1 $3:process transition;
allow $3 $2:file { entrypoint open read execute getattr map };
')
define(`domain_auto_trans', `
domain_trans($1,$2,$3)
type_transition $1 $2:process $3;
')
define(`init_daemon_domain', `domain_auto_trans(init, $1_exec, $1)')
define(`unix_socket_connect', `
allow $1 $2_socket:sock_file write;
allow $1 $3:unix_stream_socket connectto;
')
define(`get_prop', `allow $1 $2:file { getattr open read map };')
define(`set_prop', `
unix_socket_connect($1, property, init)
allow $1 $2:property_service set;
get_prop($1, $2)
')
define(`system_internal_prop', `type $1, property_type, system_property_type, system_internal_property_type;')
define(`system_restricted_prop', `type $1, property_type, system_property_type, system_restricted_property_type;')
define(`system_public_prop', `type $1, property_type, system_property_type, system_public_property_type;')
define(`userdebug_or_eng', `$1')
