# Download manager package: web interface and peer-to-peer transfers.
[global]
version="2"
support_key="support_download_manager"

[download_web]
title_key="pkg:download:web_title"
title="Download manager"
desc_key="pkg:download:web_desc"
desc="Web interface of the download manager"
port_forward="yes"
dst.ports="8000:8010/tcp"

[download_p2p]
title_key="pkg:download:p2p_title"
title="Download manager transfers"
desc_key="pkg:download:p2p_desc"
desc="Incoming peer-to-peer connections"
port_forward="yes"
dst.ports="16881/tcp,udp"
