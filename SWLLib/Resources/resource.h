#pragma once
// String-table ids of SWLLib (115 and 116 are not defined).
#define IDS_ADMIN_REQUIRED          101
#define IDS_NO_SUPPORTED_DEVICES    102
#define IDS_OS_NOT_SUPPORTED        103
#define IDS_WIZARD_CAPTION          104
#define IDS_REMOVING_SYSTEM_SERVICE 105
#define IDS_ADDING_SYSTEM_SERVICE   106
#define IDS_REMOVING_USER_SERVICE   107
#define IDS_STARTING_USER_SERVICE   108
#define IDS_PRODUCT_CAPTION         109
#define IDS_LAUNCHER_REQUIRED       110
#define IDS_RESTART_FOR_CHANGES     111
#define IDS_PENDING_RESTART         112
#define IDS_ADDING_DRIVERS          113
#define IDS_REMOVING_DRIVERS        114
#define IDS_ADDING_CFSWL            117
#define IDS_REMOVING_CFSWL          118
#define IDS_PREVIOUS_VERSION        119
#define IDS_REMOVING_HWA_SWL        120
#define IDS_ADDING_HWA_SWL          121
#define IDS_REMOVING_DEVICES        122
