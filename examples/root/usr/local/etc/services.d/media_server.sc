# Media server package: streams music and video to players on the local network.
[global]
version="2"
support_key="support_media_server"

[media_server]
title_key="pkg:media_server:title"
title="Media server"
desc_key="pkg:media_server:desc"
desc="Streams music, photos and video to players on the network"
port_forward="no"
dst.ports="50001,50002/tcp"

[media_server_discovery]
title_key="pkg:media_server:discovery_title"
title="Media server discovery"
desc_key="pkg:media_server:discovery_desc"
desc="Announces the media server to players (SSDP)"
dst.ports="1900/udp"
