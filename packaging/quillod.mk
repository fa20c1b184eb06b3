# To be inherited by the device's product makefile. The log-mask files are the product's own choice:
# PRODUCT_COPY_FILES += FILE.cfg:$(TARGET_COPY_OUT_VENDOR)/etc/quillod/cfg/DIAG.cfg
PRODUCT_PACKAGES += quillod

# Capture stays off until someone sets persist.vendor.factory.diagdebug to true.
PRODUCT_PROPERTY_OVERRIDES += \
    ro.blan.interface=usb0 \
    persist.vendor.factory.diagdebug=false

BOARD_SEPOLICY_DIRS += $(dir $(lastword $(MAKEFILE_LIST)))sepolicy
