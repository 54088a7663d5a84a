# Photo gallery package. Its second web port collides with the download manager's range
# (8000 to 8010), and its database port with the built-in database service (3306).
[global]
version="2"
support_key="support_photo_gallery"

[photo_gallery]
title_key="pkg:photo:title"
title="Photo gallery"
desc_key="pkg:photo:desc"
desc="Photo albums shared from the photo folder"
port_forward="yes"
dst.ports="8008,8443/tcp"

[photo_gallery_db]
title="Photo gallery database"
desc="Database used by the photo gallery"
dst.ports="3306/tcp"
