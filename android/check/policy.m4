# A policy of stand-ins for the platform's, around ../sepolicy: enough to compile what is there,
# nothing to install. scripts/check-android expands it with m4 (VARIANT: user or userdebug) and
# compiles it. Types, attributes and permissions have the platform's names (API 30); of its rules only
# those neverallows are here that these files could meet.

class blk_file
class capability
class dir
class file
class lnk_file
class process

sid kernel

common file { append create getattr ioctl map open read rename setattr unlink write }
class blk_file inherits file
class capability { sys_admin sys_rawio }
class dir inherits file { add_name remove_name rmdir search }
class file inherits file { entrypoint execute execute_no_trans }
class lnk_file inherits file
class process { noatsecure rlimitinh siginh sigchld transition }

sensitivity s0;
dominance { s0 }
category c0;
level s0:c0;
mlsconstrain process transition (h1 dom h2);

attribute core_data_file_type;
attribute data_file_type;
attribute dev_type;
attribute domain;
attribute exec_type;
attribute file_type;
attribute fs_type;
attribute proc_type;
attribute sysfs_type;
attribute vendor_file_type;

type block_device, dev_type;
type init, domain;
type kernel, domain;
type proc, fs_type, proc_type;
type sysfs, fs_type, sysfs_type;
type vendor_data_file, file_type, data_file_type;
type vendor_file, vendor_file_type, file_type;

define(`init_daemon_domain', `
allow init $1_exec:file { getattr open read execute map };
allow init $1:process { transition siginh rlimitinh };
allow $1 $1_exec:file { entrypoint open read execute getattr map };
dontaudit init $1:process noatsecure;
type_transition init $1_exec:process $1;
')

include(`sepolicy/ffu.te')

# Raw block devices; ioctls without a number; raw I/O, which userdebug and eng builds are free of.
neverallow { domain -init -kernel } block_device:blk_file { open read write };
neverallowxperm * *:{ blk_file dir file lnk_file } ioctl { 0 };
ifelse(VARIANT, `user', `neverallow { domain -init -kernel } self:capability sys_rawio;')

role r;
role r types domain;
user u roles { r } level s0 range s0 - s0:c0;

sid kernel u:r:kernel:s0

genfscon proc / u:object_r:proc:s0
genfscon sysfs / u:object_r:sysfs:s0
include(`sepolicy/genfs_contexts')
