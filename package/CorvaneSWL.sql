-- Rows of CorvaneSWL.msi that wixl cannot write, added by AddRows.cmake after
-- wixl has built the package: one query per line; "--" lines are comments.
--
-- The default-provider value only when the administrator asks for it: any
-- "TopProvider" value at all makes the first install ask for a restart. The
-- condition holds on removal too: a component whose condition is false then is
-- left behind, and the value with it.
UPDATE `Component` SET `Condition` = 'TOPPROVIDER = "1" OR REMOVE = "ALL"' WHERE `Component` = 'TopProvider'
-- Name "-": the key and everything below it go when the product is removed.
-- DRIVERS holds InstallDrivers' records (RemoveDrivers has read them by then),
-- SWFallback the software library's location (RegisterOstra).
INSERT INTO `Registry` (`Registry`, `Root`, `Key`, `Name`, `Component_`) VALUES ('DriversKey', 2, 'SOFTWARE\CORVANE\SWL\DRIVERS', '-', 'ProductKey')
INSERT INTO `Registry` (`Registry`, `Root`, `Key`, `Name`, `Component_`) VALUES ('FallbackKey', 2, 'SOFTWARE\CORVANE\SWL\SWFallback', '-', 'ProductKey')
-- Removal of what ExtractOstraPackage unpacked and of swlzip.dll in the system
-- folder (InstallMode 2: on removal), innermost folder first.
INSERT INTO `RemoveFile` (`FileKey`, `Component_`, `FileName`, `DirProperty`, `InstallMode`) VALUES ('OstraNativeFiles', 'OstraPackage', '*', 'OstraNativeFolder', 2)
INSERT INTO `RemoveFile` (`FileKey`, `Component_`, `DirProperty`, `InstallMode`) VALUES ('OstraNativeFolder', 'OstraPackage', 'OstraNativeFolder', 2)
INSERT INTO `RemoveFile` (`FileKey`, `Component_`, `DirProperty`, `InstallMode`) VALUES ('OstraPlatformFolder', 'OstraPackage', 'OstraPlatformFolder', 2)
INSERT INTO `RemoveFile` (`FileKey`, `Component_`, `DirProperty`, `InstallMode`) VALUES ('OstraRuntimesFolder', 'OstraPackage', 'OstraRuntimesFolder', 2)
INSERT INTO `RemoveFile` (`FileKey`, `Component_`, `FileName`, `DirProperty`, `InstallMode`) VALUES ('OstraVersionFiles', 'OstraPackage', '*', 'OstraVersionFolder', 2)
INSERT INTO `RemoveFile` (`FileKey`, `Component_`, `DirProperty`, `InstallMode`) VALUES ('OstraVersionFolder', 'OstraPackage', 'OstraVersionFolder', 2)
INSERT INTO `RemoveFile` (`FileKey`, `Component_`, `DirProperty`, `InstallMode`) VALUES ('OstraFolder', 'OstraPackage', 'OstraFolder', 2)
INSERT INTO `RemoveFile` (`FileKey`, `Component_`, `FileName`, `DirProperty`, `InstallMode`) VALUES ('SwlZipInSystem', 'OstraPackage', 'swlzip.dll', 'System64Folder', 2)
-- The crypto stand-in's record of its calls beside it.
INSERT INTO `RemoveFile` (`FileKey`, `Component_`, `FileName`, `DirProperty`, `InstallMode`) VALUES ('CryptoToolCalls', 'CryptoTool', 'TpxCNGInstaller.exe.calls', 'CryptoFolder', 2)
