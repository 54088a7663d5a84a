# Network backup: the rsync daemon and the backup vault's own protocol.
[global]
version="1"
support_key="support_net_backup"
run_key="runnetbackup"

[net_backup]
title_key="backup:net_backup_title"
title="Network backup"
desc_key="backup:net_backup_desc"
desc="Receives backups from other servers over rsync"
desc_extra="Clients connect with rsync to port 873"
port_forward="yes"
dst.ports="873/tcp"

[backup_vault]
title_key="backup:vault_title"
title="Backup vault"
desc_key="backup:vault_desc"
desc="Versioned backup targets for desktop clients"
src.ports="1024:65535/tcp"
dst.ports="6281:6283/tcp"
